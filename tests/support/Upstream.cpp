#include "Upstream.h"

#include <QList>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <utility>

Upstream::Upstream(std::map<QByteArray, Answer> script)
    : m_script(std::move(script)), m_listener(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6; // Any address of either family.
    socklen_t length = sizeof address;
    bind(m_listener, reinterpret_cast<const sockaddr*>(&address), length);
    listen(m_listener, 16);
    getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin6_port);
    m_acceptor = std::thread([this] { accept(); });
}

Upstream::~Upstream()
{
    shutdown(m_listener, SHUT_RDWR);
    m_acceptor.join();
    close(m_listener);
    {
        // A client in this very thread would not leave before it is let go.
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const int fd : m_open)
            shutdown(fd, SHUT_RDWR);
    }
    for (std::thread& answer : m_answers)
        answer.join();
}

QByteArray Upstream::url(const QByteArray& path, const QByteArray& host) const
{
    return "http://" + host + ':' + QByteArray::number(m_port) + path;
}

void Upstream::accept()
{
    for (int fd = 0; (fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        ++m_connections;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open.insert(fd);
        m_answers.emplace_back([this, fd] { serve(fd); });
    }
}

void Upstream::serve(int fd)
{
    answer(fd);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_open.erase(fd);
    close(fd);
}

int Upstream::open()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return int(m_open.size());
}

void Upstream::answer(int fd)
{
    QByteArray head;
    char block[4096];
    while (!head.contains("\r\n\r\n")) {
        const auto count = recv(fd, block, sizeof block, 0);
        if (count <= 0)
            return;
        head.append(block, int(count));
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lastRequest = head;
    }
    const auto found = m_script.find(m_script.count("*") ? "*" : head.split(' ').value(1));
    if (found == m_script.end())
        return;
    const Answer& answer = found->second;
    std::this_thread::sleep_for(std::chrono::milliseconds(answer.delayMs));
    bool isTaken = send(fd, answer.bytes);
    if (!answer.flood.isEmpty()) {
        const QByteArray filler = answer.flood.repeated(1 + 64 * 1024 / answer.flood.size());
        for (qint64 left = answer.floodBytes; isTaken && left > 0; left -= filler.size())
            isTaken = send(fd, filler.left(int(qMin<qint64>(left, filler.size()))));
    }
    if (answer.hang) {
        ++m_waiting;
        while (recv(fd, block, sizeof block, 0) > 0) { }
        --m_waiting;
    }
}

bool Upstream::send(int fd, const QByteArray& bytes)
{
    int sent = 0;
    while (sent < bytes.size()) {
        const auto count = ::send(fd, bytes.constData() + sent, size_t(bytes.size() - sent), MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        sent += int(count);
        m_bytesSent += count;
    }
    return true;
}

QByteArray Upstream::lastRequest()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastRequest;
}
