#pragma once

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include "Files.h"
#include "HttpConnection.h"

/// Who asks, and from where.
struct Client {
    const char* address = "127.0.0.1"; ///< Or RemoteAddress.
    QByteArray password; ///< Of "admin", who signs with it; null: unsigned.
};

/// A running demo device: the real zark-host with the modules system, player and webserver, its state in a temporary
/// directory, on a free port.
class Device {
public:
    /// `settings`: PATH=VALUE for --set; `arguments`: as they are. Starts at once; isRunning() tells whether it became
    /// ready.
    explicit Device(const QStringList& settings = {}, const QStringList& arguments = {});
    /// Stops it with SIGTERM and waits.
    ~Device();

    bool isRunning() const { return m_process.state() == QProcess::Running && m_ready; }
    int port() const { return m_port; }
    qint64 pid() const { return m_process.processId(); }
    QString stateDirectory() const { return m_state.path(); }
    QByteArray baseUrl() const { return "http://127.0.0.1:" + QByteArray::number(m_port); }

    bool start(); ///< With the same state and port. True when ready.
    int stop(int signal); ///< Sends the signal and waits; the exit status, or -1 when a signal ended it.
    int exitStatus(); ///< Of a device that ended by itself.
    QByteArray log() const { return contentOf(logFile()); } ///< Standard error so far.

    /// A connection over which `bytes` were sent.
    HttpConnection connect(const QByteArray& bytes = {}, const QByteArray& address = "127.0.0.1") const;
    Connections connect(int count, const QByteArray& bytes = {}) const;
    /// One request on a connection of its own, with Host and "Connection: close".
    HttpReply request(const QByteArray& method, const QByteArray& target, const QList<QByteArray>& headers = {},
        const QByteArray& body = {}) const;
    HttpReply get(const QByteArray& target, const QList<QByteArray>& headers = {}) const
    {
        return request("GET", target, headers);
    }
    HttpReply postJson(const QByteArray& target, const QByteArray& json, const QList<QByteArray>& headers = {}) const;
    /// What a client sends: GET, or POST of JSON when there is a body; kept alive.
    QByteArray requestOf(const Client& client, const QByteArray& target, const QByteArray& json = {}) const;
    HttpReply ask(const Client& client, const QByteArray& target, const QByteArray& json = {}) const;
    /// A role that is set from this machine; the status.
    int set(const QByteArray& path, const QByteArray& json, const QByteArray& role = "value") const;
    static QByteArray setBody(const QByteArray& path, const QByteArray& json, const QByteArray& role = "value");
    /// A value by getData, as JSON text; null when that fails.
    QByteArray value(const QByteArray& path) const;

    int descriptors() const; ///< Open ones.
    qint64 kilobytes(const char* field) const; ///< Of its /proc/PID/status, such as "VmRSS:".

    static int freePort();

private:
    QString logFile() const { return m_state.filePath(QStringLiteral("device.log")); }

    QTemporaryDir m_state;
    QProcess m_process;
    QStringList m_arguments;
    int m_port;
    bool m_ready = false;
};
