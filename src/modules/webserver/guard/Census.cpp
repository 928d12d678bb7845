#include "Census.h"

#include "Connection.h"

void Census::add(const Connection& connection)
{
    if (connection.state == Connection::ReadingHead)
        ++(connection.answeredBefore ? idle : opening);
    else
        ++(connection.state == Connection::ReadingBody ? receiving : answering);
}

Census& Census::operator+=(const Census& other)
{
    opening += other.opening;
    idle += other.idle;
    receiving += other.receiving;
    answering += other.answering;
    return *this;
}
