#include "ServerMessageDevice.h"

#include "Message.h"
#include "WebserverLog.h"

ServerMessageDevice::ServerMessageDevice(Message* msg, QObject* parent) : QIODevice(parent), m_message(msg)
{
    connect(m_message, &Message::wroteChunk, this, &ServerMessageDevice::on_message_wroteChunk);
    connect(m_message, &Message::finished, this, &ServerMessageDevice::on_message_finished);
}

bool ServerMessageDevice::open(OpenMode mode)
{
    dbglog_scopedFunction(webserverLog());
    if (!m_message->isValid()) {
        dbglog_trace(webserverLog(), "ServerMessageDevice::open: " << int(mode) << " (no message)");
        return false;
    }
    if (mode != ReadOnly && mode != WriteOnly) {
        dbglog_trace(webserverLog(), "ServerMessageDevice::open: " << int(mode) << " (wrong mode)");
        return false;
    }
    // Unbuffered: a write must reach the message as the chunk it was.
    if (!QIODevice::open(mode | Unbuffered)) {
        dbglog_trace(webserverLog(), "ServerMessageDevice::open: " << int(mode) << " (error in QIODevice::open)");
        return false;
    }
    if (mode == WriteOnly)
        m_message->setEncoding(Message::Streamed);
    return true;
}

qint64 ServerMessageDevice::bytesToWrite() const
{
    dbglog_scopedFunction(webserverLog());
    qint32 sum = 0;
    for (const qint64 size : m_pendingChunks)
        sum += static_cast<qint32>(size);
    return sum;
}

void ServerMessageDevice::close()
{
    dbglog_scopedFunction(webserverLog());
    const OpenMode mode = openMode() & ~OpenMode(Unbuffered);
    QIODevice::close();
    if (!m_message->isValid()) {
        dbglog_trace(webserverLog(), "ServerMessageDevice::close: (no message)");
        return;
    }
    if (mode == WriteOnly) {
        dbglog_trace(webserverLog(), "ServerMessageDevice::close: marking body complete");
        m_message->responseBodyComplete();
    }
    dbglog_trace(webserverLog(),
        "ServerMessageDevice::close: pending chunks: " << m_pendingChunks.size() << " msg->response_boddy->length: "
                                                       << m_message->data().message->response_body->length);
}

qint64 ServerMessageDevice::readData(char*, qint64)
{
    return -1;
}

qint64 ServerMessageDevice::writeData(const char* data, qint64 length)
{
    if (!m_message->isValid()) {
        dbglog_trace(webserverLog(), "ServerMessageDevice::writeData: " << length << " no messge");
        return -1;
    }
    // An empty chunk would never be reported as sent.
    if (length > 0) {
        m_pendingChunks.append(length);
        m_message->responseBodyAdd(data, length);
    }
    dbglog_trace(
        webserverLog(), "ServerMessageDevice::writeData: " << length << ", pending chunks: " << m_pendingChunks.size());
    return length;
}

void ServerMessageDevice::on_message_wroteChunk()
{
    if (m_pendingChunks.isEmpty()) {
        dbglog_trace(webserverLog(),
            "on_message_wroteChunk: no chunks expected to be written (data was added to the Message in another way "
            "than through ServerMessageDevice)");
        Q_EMIT bytesWritten(0);
        return;
    }
    const qint64 size = m_pendingChunks.takeFirst();
    dbglog_trace(webserverLog(), "on_message_wroteChunk: first: " << size);
    Q_EMIT bytesWritten(size);
}

void ServerMessageDevice::on_message_finished()
{
    const bool disconnectSucceeded =
        disconnect(m_message, &Message::wroteChunk, this, &ServerMessageDevice::on_message_wroteChunk);
    if (!disconnectSucceeded)
        qFatal("disconnectSucceeded");
    if ((openMode() & ~OpenMode(Unbuffered)) != WriteOnly)
        return;
    QIODevice::close();
    m_pendingChunks.clear();
    Q_EMIT bytesWritten(0);
}
