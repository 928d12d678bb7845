#include "Responder.h"

#include "Request.h"
#include "WebserverLog.h"

Responder::Responder(Request& request, const QString& documentRoot, QObject* parent)
    : QObject(parent), m_request(request), m_documentRoot(documentRoot)
{
}

void Responder::setRequestId(int) { }

void Responder::setIODevices(QIODevice* in, QIODevice* out)
{
    dbglog_scopedFunction(webserverLog());
    m_inputDevice = in;
    m_outputDevice = out;
    m_input.reset();
    m_output.reset();
}

QTextStream& Responder::input()
{
    if (!m_input)
        m_input = std::make_unique<QTextStream>(m_inputDevice);
    return *m_input;
}

QTextStream& Responder::output()
{
    if (!m_output)
        m_output = std::make_unique<QTextStream>(m_outputDevice);
    return *m_output;
}

void Responder::setHeader(const QString& name, const QString& value)
{
    dbglog_scopedFunction(webserverLog());
    m_request.setHeader(name, value);
}
