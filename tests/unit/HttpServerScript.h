#pragma once

#include <QHostAddress>
#include <QTcpServer>

class QTcpSocket;

/// A server on loopback that answers every request with the same bytes, right or wrong as HTTP.
class HttpServerScript : public QTcpServer {
    Q_OBJECT
public:
    enum End {
        Close, ///< Closes after the bytes.
        Hang, ///< Leaves the connection open.
        Flood, ///< Repeats `flood` after the head until the client goes.
    };

    explicit HttpServerScript(const QByteArray& head, End end = Close, const QByteArray& flood = {},
        const QHostAddress& address = QHostAddress::LocalHost);

    QString url(const QString& host = QStringLiteral("127.0.0.1")) const;

    QByteArray request; ///< The last one.
    int connections = 0;
    int gone = 0; ///< Connections that the client has ended, or that are over.
    qint64 written = 0; ///< Bytes that the kernel took.

private:
    void onConnection();
    void onRequest(QTcpSocket* socket);

    QByteArray m_head;
    End m_end;
    QByteArray m_flood;
};
