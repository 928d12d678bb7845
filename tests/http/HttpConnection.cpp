#include "HttpConnection.h"

#include <QDeadlineTimer>
#include <QJsonObject>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
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

namespace {

int trafficFile()
{
    const QByteArray folder = qgetenv("ZARK_TRAFFIC");
    const QByteArray name = folder + '/' + QByteArray(program_invocation_short_name);
    return folder.isEmpty() ? -1 : ::open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
}

/// A line for each exchange of this program, which openapi.test.mjs compares with the description.
void record(const QByteArray& request, const HttpReply& reply)
{
    static const int file = trafficFile();
    const QByteArray line =
        request + ' ' + QByteArray::number(reply.status) + ' ' + reply.header("Content-Type") + '\n';
    if (!request.isEmpty() && reply.status != 0)
        (void)!::write(file, line.constData(), size_t(line.size()));
}

} // namespace

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

HttpConnection::HttpConnection(HttpConnection&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1)), m_request(std::move(other.m_request)), m_buffer(std::move(other.m_buffer))
{
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
    if (m_request.isEmpty() && bytes.contains(" HTTP/1.1\r\n"))
        m_request = bytes.left(bytes.indexOf(" HTTP/1.1\r\n"));
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
    const QDeadlineTimer limit(timeoutMs);
    do {
        m_buffer.clear();
        if (!hasData(int(limit.remainingTime())))
            return false;
    } while (fill(0));
    return true;
}

QByteArray HttpConnection::readTo(const QByteArray& end, int timeoutMs)
{
    int at = -1;
    while ((at = m_buffer.indexOf(end)) < 0) {
        if (!fill(timeoutMs))
            return {};
    }
    return read(at + end.size());
}

QByteArray HttpConnection::read(int size, int timeoutMs)
{
    while (m_buffer.size() < size && fill(timeoutMs)) { }
    const QByteArray bytes = m_buffer.left(size);
    m_buffer.remove(0, size);
    return bytes;
}

HttpReply HttpConnection::readReply(int timeoutMs, bool headRequest)
{
    const QList<QByteArray> lines = readTo("\r\n\r\n", timeoutMs).trimmed().split('\n');
    HttpReply reply;
    reply.status = lines.value(0).split(' ').value(1).toInt();
    for (const QByteArray& line : lines.mid(1)) {
        const int colon = line.indexOf(':');
        reply.headers.append({ line.left(colon), line.mid(colon + 1).trimmed() });
    }
    if (reply.status / 100 != 1)
        record(std::exchange(m_request, {}), reply);
    if (reply.status / 100 == 1)
        return readReply(timeoutMs, headRequest);
    if (reply.status == 0 || headRequest || reply.status == 204 || reply.status == 304)
        return reply;
    const QByteArray length = reply.header("Content-Length");
    const bool isChunked = reply.header("Transfer-Encoding") == "chunked";
    const int size = length.isNull() ? INT_MAX : length.toInt();
    reply.body = isChunked ? readChunks(size, timeoutMs) : read(size, timeoutMs);
    const bool isWhole = isChunked ? !reply.body.isNull() : length.isNull() || reply.body.size() == size;
    return isWhole ? reply : HttpReply();
}

QByteArray HttpConnection::readChunks(int size, int timeoutMs)
{
    QByteArray body("");
    while (body.size() < size) {
        const int length = readTo("\r\n", timeoutMs).trimmed().toInt(nullptr, 16);
        const QByteArray chunk = read(length + 2, timeoutMs);
        if (chunk.size() < length + 2)
            return {};
        body += chunk.left(length);
        if (length == 0)
            return body;
    }
    return body.left(size);
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
