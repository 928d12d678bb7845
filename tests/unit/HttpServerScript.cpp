#include "HttpServerScript.h"

#include <QTcpSocket>

HttpServerScript::HttpServerScript(
    const QByteArray& head, End end, const QByteArray& flood, const QHostAddress& address)
    : m_head(head), m_end(end), m_flood(flood)
{
    connect(this, &QTcpServer::newConnection, this, &HttpServerScript::onConnection);
    listen(address);
}

QString HttpServerScript::url(const QString& host) const
{
    return QStringLiteral("http://%1:%2/").arg(host).arg(serverPort());
}

void HttpServerScript::onConnection()
{
    while (QTcpSocket* socket = nextPendingConnection()) {
        ++connections;
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onRequest(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this] { ++gone; });
        connect(socket, &QTcpSocket::bytesWritten, this, [this, socket](qint64 bytes) {
            written += bytes;
            if (m_end == Flood && socket->bytesToWrite() == 0)
                socket->write(m_flood);
        });
    }
}

void HttpServerScript::onRequest(QTcpSocket* socket)
{
    const QByteArray text = socket->property("request").toByteArray() + socket->readAll();
    socket->setProperty("request", text);
    if (!text.endsWith("\r\n\r\n"))
        return;
    request = text;
    socket->write(m_head);
    if (m_end == Close)
        socket->disconnectFromHost();
}
