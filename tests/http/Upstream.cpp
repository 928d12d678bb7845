#include "Upstream.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

Upstream::Upstream(std::map<std::string, Answer> script)
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
    for (std::thread& answer : m_answers)
        answer.join();
}

void Upstream::accept()
{
    for (int fd = 0; (fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
        m_answers.emplace_back([this, fd] { answer(fd); });
}

void Upstream::answer(int fd)
{
    std::string head;
    char block[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
        const auto count = recv(fd, block, sizeof block, 0);
        if (count <= 0)
            break;
        head.append(block, static_cast<size_t>(count));
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lastRequest = head;
    }
    const size_t from = head.find(' ') + 1;
    const Answer& answer = m_script[head.substr(from, head.find(' ', from) - from)];
    std::this_thread::sleep_for(std::chrono::milliseconds(answer.delayMs));
    bool open = send(fd, answer.bytes);
    const std::string filler(64 * 1024, answer.bytes.empty() ? ' ' : answer.bytes.back());
    for (long long left = answer.repeats - 1; open && left > 0; left -= static_cast<long long>(filler.size()))
        open = send(fd, filler.substr(0, static_cast<size_t>(std::min<long long>(left, filler.size()))));
    if (answer.hang) {
        ++m_waiting;
        while (recv(fd, block, sizeof block, 0) > 0) { }
        --m_waiting;
    }
    close(fd);
}

bool Upstream::send(int fd, const std::string& bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const auto count = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        sent += static_cast<size_t>(count);
        m_bytesSent += count;
    }
    return true;
}

std::string Upstream::lastRequest()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastRequest;
}
