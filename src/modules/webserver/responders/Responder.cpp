#include "Responder.h"

#include "Request.h"

Responder::Responder(Request& request, const QString& documentRoot, QObject* parent)
    : QObject(parent), m_request(request), m_documentRoot(documentRoot)
{
}

void Responder::setRequestId(int) { }

void Responder::setIODevices(QIODevice* in, QIODevice* out)
{
    m_input.setDevice(in);
    m_output.setDevice(out);
}

void Responder::setHeader(const QString& name, const QString& value)
{
    m_request.setHeader(name, value);
}
