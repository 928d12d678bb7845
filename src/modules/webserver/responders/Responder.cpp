#include "Responder.h"

#include <QBuffer>

#include "Request.h"
#include "ServerMessageDevice.h"
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

void Responder::complete()
{
    dbglog_scopedFunction(webserverLog());
    if (m_request.isFinished())
        return; // The device hears of that by itself.
    if (m_inputDevice)
        m_inputDevice->close();
    if (m_outputDevice)
        m_outputDevice->close();
    else
        m_request.unpause(); // The body has its length, and may be on its way from elsewhere: FileTransfer.
}

QIODevice* Responder::inputDevice()
{
    if (!m_inputDevice) {
        m_ownInput = std::make_unique<QBuffer>();
        m_ownInput->open(QIODevice::ReadOnly);
        m_inputDevice = m_ownInput.get();
    }
    return m_inputDevice;
}

QIODevice* Responder::outputDevice()
{
    if (!m_outputDevice) {
        m_ownOutput = std::make_unique<ServerMessageDevice>(&m_request, nullptr);
        m_ownOutput->open(QIODevice::WriteOnly);
        m_outputDevice = m_ownOutput.get();
    }
    return m_outputDevice;
}

QTextStream& Responder::input()
{
    if (!m_input)
        m_input = std::make_unique<QTextStream>(inputDevice());
    return *m_input;
}

QTextStream& Responder::output()
{
    if (!m_output)
        m_output = std::make_unique<QTextStream>(outputDevice());
    return *m_output;
}

void Responder::setHeader(const QString& name, const QString& value)
{
    dbglog_scopedFunction(webserverLog());
    m_request.setHeader(name, value);
}
