#include "ServerCounters.h"

ServerCounters& ServerCounters::operator+=(const ServerCounters& other)
{
    requests += other.requests;
    for (int status = 0; status < 6; ++status)
        answers[status] += other.answers[status];
    receivedBytes += other.receivedBytes;
    sentBytes += other.sentBytes;
    malformedHeads += other.malformedHeads;
    longHeads += other.longHeads;
    longBodies += other.longBodies;
    foreignHosts += other.foreignHosts;
    accepted += other.accepted;
    displaced += other.displaced;
    return *this;
}
