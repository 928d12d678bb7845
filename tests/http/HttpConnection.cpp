#include "HttpConnection.h"

#include <QElapsedTimer>
#include <QJsonObject>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

QByteArray HttpReply::header(const QByteArray& name) const
{
    for (const auto& field : headers) {
        if (field.first.compare(name, Qt::CaseInsensitive) == 0)
            return field.second;
    }
    return {};
}

QByteArray HttpReply::errorMessage() const
{
    return json().object().value("error").toObject().value("message").toString().toUtf8();
}

HttpConnection::HttpConnection(int port, const QByteArray& address)
{
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.constData(), &target.sin_addr);
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(m_fd, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0)
        close();
}

HttpConnection::~HttpConnection()
{
    close();
}

void HttpConnection::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

void HttpConnection::reset()
{
    const linger now{ 1, 0 };
    setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close();
}

bool HttpConnection::holdBack(bool hold)
{
    sock_filter drop = BPF_STMT(BPF_RET | BPF_K, 0);
    const sock_fprog program{ 1, &drop };
    return setsockopt(m_fd, SOL_SOCKET, hold ? SO_ATTACH_FILTER : SO_DETACH_FILTER, &program, sizeof program) == 0;
}

void HttpConnection::shutDownSending()
{
    shutdown(m_fd, SHUT_WR);
}

bool HttpConnection::send(const QByteArray& bytes)
{
    int sent = 0;
    while (sent < bytes.size()) {
        const auto count =
            ::send(m_fd, bytes.constData() + sent, static_cast<size_t>(bytes.size() - sent), MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        sent += static_cast<int>(count);
    }
    return true;
}

bool HttpConnection::hasData(int timeoutMs)
{
    pollfd request{ m_fd, POLLIN, 0 };
    return !m_buffer.isEmpty() || poll(&request, 1, timeoutMs) == 1;
}

bool HttpConnection::fill(int timeoutMs)
{
    pollfd request{ m_fd, POLLIN, 0 };
    if (m_fd < 0 || poll(&request, 1, timeoutMs) != 1)
        return false;
    char block[65536];
    const auto count = recv(m_fd, block, sizeof block, 0);
    if (count <= 0)
        return false;
    m_buffer.append(block, static_cast<int>(count));
    return true;
}

bool HttpConnection::isClosedWithin(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        pollfd request{ m_fd, POLLIN, 0 };
        if (poll(&request, 1, timeoutMs - static_cast<int>(timer.elapsed())) != 1)
            return false;
        char block[65536];
        if (recv(m_fd, block, sizeof block, 0) <= 0)
            return true;
    }
    return false;
}

HttpReply HttpConnection::readReply(int timeoutMs, bool headRequest)
{
    int headEnd = -1;
    while ((headEnd = m_buffer.indexOf("\r\n\r\n")) < 0) {
        if (!fill(timeoutMs))
            return {};
    }
    HttpReply reply;
    const QList<QByteArray> lines = m_buffer.left(headEnd).split('\n');
    m_buffer.remove(0, headEnd + 4);
    reply.status = lines.value(0).split(' ').value(1).toInt();
    for (const QByteArray& line : lines.mid(1)) {
        const int colon = line.indexOf(':');
        reply.headers.append({ line.left(colon), line.mid(colon + 1).trimmed() });
    }
    if (reply.status / 100 == 1)
        return readReply(timeoutMs, headRequest);
    if (headRequest || reply.status == 204 || reply.status == 304)
        return reply;
    if (reply.header("Transfer-Encoding") == "chunked") {
        while (true) {
            int lineEnd = -1;
            while ((lineEnd = m_buffer.indexOf("\r\n")) < 0) {
                if (!fill(timeoutMs))
                    return {};
            }
            const int size = m_buffer.left(lineEnd).toInt(nullptr, 16);
            while (m_buffer.size() < lineEnd + 2 + size + 2) {
                if (!fill(timeoutMs))
                    return {};
            }
            reply.body += m_buffer.mid(lineEnd + 2, size);
            m_buffer.remove(0, lineEnd + 2 + size + 2);
            if (size == 0)
                return reply;
        }
    }
    const QByteArray length = reply.header("Content-Length");
    if (length.isNull()) {
        while (fill(timeoutMs)) { }
        reply.body = std::exchange(m_buffer, {});
        return reply;
    }
    while (m_buffer.size() < length.toInt()) {
        if (!fill(timeoutMs))
            return {};
    }
    reply.body = m_buffer.left(length.toInt());
    m_buffer.remove(0, length.toInt());
    return reply;
}

QByteArray httpRequest(
    const QByteArray& method, const QByteArray& target, const QList<QByteArray>& headers, const QByteArray& body)
{
    QByteArray request = method + ' ' + target + " HTTP/1.1\r\n";
    for (const QByteArray& header : headers)
        request += header + "\r\n";
    if (!body.isEmpty())
        request += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    return request + "\r\n" + body;
}
