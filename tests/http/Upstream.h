#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// A source for the proxy: answers each path with the bytes that a script gives for it, on threads of its own, and
/// then closes. Listens on every address.
class Upstream {
public:
    struct Answer {
        std::string bytes;
        long long repeats = 1; ///< The last byte so many times.
        bool hang = false; ///< Waits for the client to leave instead of closing.
        int delayMs = 0; ///< Before the first byte.
    };

    explicit Upstream(std::map<std::string, Answer> script);
    ~Upstream();
    Upstream(const Upstream&) = delete;
    Upstream& operator=(const Upstream&) = delete;

    int port() const { return m_port; }
    long long bytesSent() const { return m_bytesSent; } ///< Of all answers.
    int waiting() const { return m_waiting; } ///< Connections that hang now.
    std::string lastRequest(); ///< The head, as it came.

private:
    void accept();
    void answer(int fd);
    bool send(int fd, const std::string& bytes);

    std::map<std::string, Answer> m_script;
    int m_listener;
    int m_port = 0;
    std::atomic<long long> m_bytesSent{ 0 };
    std::atomic<int> m_waiting{ 0 };
    std::mutex m_mutex;
    std::string m_lastRequest;
    std::vector<std::thread> m_answers;
    std::thread m_acceptor;
};
