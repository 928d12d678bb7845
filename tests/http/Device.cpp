#include "Device.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonObject>

#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Signer.h"

namespace {
constexpr int StartMilliseconds = 20000; // Under sanitizers, on a busy machine.
}

Device::Device(const QStringList& settings, const QStringList& arguments) : m_port(freePort())
{
    m_arguments << "--tree" << DEMO_TREE << "--state" << m_state.path();
    for (const char* module : { "system", "player", "webserver" })
        m_arguments << "--worker" << module;
    m_arguments << "--set" << QStringLiteral("settings:webserver/port=%1").arg(m_port);
    // Off unless a test asks for it: most need no certificate.
    if (settings.filter("settings:webserver/httpsPort=").isEmpty())
        m_arguments << "--set"
                    << "settings:webserver/httpsPort=0";
    for (const QString& setting : settings)
        m_arguments << "--set" << setting;
    m_arguments << arguments;
    // A file, and not a pipe: a full pipe would stop the device in the middle of a line.
    m_process.setStandardErrorFile(logFile(), QIODevice::Append);
    start();
}

Device::~Device()
{
    if (m_process.state() == QProcess::Running)
        stop(SIGTERM);
}

bool Device::start()
{
    m_ready = false;
    m_process.start(QString::fromLocal8Bit(ZARK_HOST), m_arguments);
    QByteArray output;
    while (!m_ready && m_process.waitForReadyRead(StartMilliseconds)) {
        output += m_process.readAllStandardOutput();
        m_ready = output.contains("ready\n");
    }
    if (!m_ready)
        qWarning("The device did not start: %s %s", output.constData(), log().constData());
    return m_ready;
}

int Device::stop(int signal)
{
    ::kill(static_cast<pid_t>(pid()), signal);
    m_process.waitForFinished(StartMilliseconds);
    m_ready = false;
    const int status = m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    // What the sanitizers say at the end belongs in the test's output.
    if (status > 0 || log().contains("ERROR: "))
        qWarning("%s", log().constData());
    return status;
}

int Device::exitStatus()
{
    m_process.waitForFinished(StartMilliseconds);
    return m_process.exitCode();
}

HttpConnection Device::connect(const QByteArray& bytes, const QByteArray& address) const
{
    HttpConnection connection(m_port, address);
    connection.send(bytes);
    return connection;
}

Connections Device::connect(int count, const QByteArray& bytes) const
{
    Connections connections;
    while (int(connections.size()) < count)
        connections.push_back(connect(bytes));
    return connections;
}

HttpReply Device::request(
    const QByteArray& method, const QByteArray& target, const QList<QByteArray>& headers, const QByteArray& body) const
{
    QList<QByteArray> fields{ "Host: 127.0.0.1:" + QByteArray::number(m_port), "Connection: close" };
    return connect(httpRequest(method, target, fields + headers, body)).readReply(30000, method == "HEAD");
}

HttpReply Device::postJson(const QByteArray& target, const QByteArray& json, const QList<QByteArray>& headers) const
{
    return request("POST", target, QList<QByteArray>{ "Content-Type: application/json" } + headers, json);
}

QByteArray Device::requestOf(const Client& client, const QByteArray& target, const QByteArray& json) const
{
    const QByteArray host = client.address + (':' + QByteArray::number(m_port));
    QList<QByteArray> fields{ "Host: " + host, "Content-Type: application/json" };
    const Signer signer("admin", client.password);
    const QByteArray uri = "http://" + host + target;
    if (!client.password.isNull())
        fields << (json.isEmpty() ? signer.forGet(uri) : signer.forPost(uri, json));
    return httpRequest(json.isEmpty() ? "GET" : "POST", target, fields, json);
}

HttpReply Device::ask(const Client& client, const QByteArray& target, const QByteArray& json) const
{
    return connect(requestOf(client, target, json), client.address).readReply();
}

QByteArray Device::setBody(const QByteArray& path, const QByteArray& json, const QByteArray& role)
{
    return R"({"path":")" + path + R"(","role":")" + role + R"(","value":)" + json + '}';
}

int Device::set(const QByteArray& path, const QByteArray& json, const QByteArray& role) const
{
    return postJson("/api/setData", setBody(path, json, role)).status;
}

QByteArray Device::value(const QByteArray& path) const
{
    const HttpReply reply = get("/api/getData?roles=value&path=" + path);
    if (reply.status != 200)
        return {};
    const QJsonValue inner = reply.json().array().at(0).toObject().value("value");
    const QByteArray list = QJsonDocument(QJsonArray{ inner }).toJson(QJsonDocument::Compact);
    return list.mid(1, list.size() - 2);
}

int Device::descriptors() const
{
    return QDir(QStringLiteral("/proc/%1/fd").arg(pid())).entryList(QDir::Files | QDir::System).size();
}

qint64 Device::kilobytes(const char* field) const
{
    const QByteArray status = contentOf(QStringLiteral("/proc/%1/status").arg(pid()));
    const int from = status.indexOf(field) + int(strlen(field));
    return status.mid(from, status.indexOf("kB", from) - from).trimmed().toLongLong();
}

int Device::freePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<const sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}
