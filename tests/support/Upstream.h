#pragma once

#include <QByteArray>

#include <atomic>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

/// A scripted HTTP server, right or wrong as HTTP: answers each path with the bytes that a script gives for it, on
/// threads of its own, and then closes. Listens on every address of both families.
class Upstream {
public:
    struct Answer {
        QByteArray bytes;
        QByteArray flood = {}; ///< Sent again and again behind `bytes`,
        qint64 floodBytes = std::numeric_limits<qint64>::max(); ///< until it is so many bytes.
        bool hang = false; ///< Waits for the client to leave instead of closing.
        int delayMs = 0; ///< Before the first byte.
    };

    explicit Upstream(std::map<QByteArray, Answer> script);
    /// Every path gets the same answer.
    explicit Upstream(const Answer& answer) : Upstream(std::map<QByteArray, Answer>{ { "*", answer } }) { }
    ~Upstream();
    Upstream(const Upstream&) = delete;
    Upstream& operator=(const Upstream&) = delete;

    int port() const { return m_port; }
    /// "http://HOST:PORT" and the path.
    QByteArray url(const QByteArray& path = "/", const QByteArray& host = "127.0.0.1") const;
    qint64 bytesSent() const { return m_bytesSent; } ///< Of all answers.
    int connections() const { return m_connections; } ///< All that there have been.
    int open(); ///< Connections now.
    int waiting() const { return m_waiting; } ///< Those that hang.
    QByteArray lastRequest(); ///< The head, as it came.

private:
    void accept();
    void serve(int fd);
    void answer(int fd);
    bool send(int fd, const QByteArray& bytes);

    const std::map<QByteArray, Answer> m_script;
    int m_listener;
    int m_port = 0;
    std::atomic<qint64> m_bytesSent{ 0 };
    std::atomic<int> m_connections{ 0 };
    std::atomic<int> m_waiting{ 0 };
    std::mutex m_mutex;
    QByteArray m_lastRequest;
    std::set<int> m_open; // Descriptors.
    std::vector<std::thread> m_answers;
    std::thread m_acceptor;
};
