#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLibrary>
#include <QTemporaryDir>

#include <glib.h>

#include "CMNodeTree.h"
#include "CMNodes.h"
#include "CMNodesWorker.h"
#include "CMRoot.h"
#include "CMTreeFile.h"
#include "CMValueNode.h"
#include "Expect.h"
#include "Namespace.h"
#include "WebserverWorker.h"
#include "dbglog.h"

namespace {

constexpr int Port = 8080;
constexpr int RunsBetweenChecks = 64;
constexpr int QuietTurns = 20; ///< Of the loop: then what the client waits for takes its time, and the client leaves.
constexpr int MostTurns = 400; ///< A stream has no end.
const char Inside[] = "what may be read\n";
const char Outside[] = "what may not be read\n";

void writeFile(const QString& name, const QByteArray& content)
{
    QFile file(name);
    expect(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
}

/// The device, in this process and in a network of its own, where it can be reached by nobody else and reach nobody.
class Device {
public:
    Device()
    {
        g_log_set_always_fatal(GLogLevelFlags(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
        DbgLogger::configure(QStringLiteral("off"), false);
        makeFiles();
        QString error;
        m_nodes = std::make_unique<CMNodes>(m_root.tree());
        expect(CMTreeFile::load(QStringLiteral(SOURCES "/share/demo/tree.json"), m_nodes.get(), &error));
        set("settings:webserver/port", ZarkValue::fromI32(Port));
        set("settings:webserver/httpsPort", ZarkValue::fromI32(0));
        set("settings:webserver/documentRoot", ZarkValue::fromString(m_directory.filePath("www")));
        set("settings:webserver/readPathPrefix", ZarkValue::fromString(m_directory.filePath("files") + '/'));
        for (const char* module : { "system", "player" })
            m_workers.push_back(make(module));
        m_workers.push_back(std::unique_ptr<CMNodesWorker>(worker_create(arguments())));
        expect(get("/index.html").endsWith(Inside));
    }

    /// What the device answers to these bytes, until it has no more to say for now.
    QByteArray answerTo(const QByteArray& bytes)
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(Port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::send(fd, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL);
        if (bytes.size() % 4 > 0) // The others may say more, for all that the device knows.
            ::shutdown(fd, SHUT_WR);
        QByteArray answer;
        int quiet = 0;
        for (int turns = 0; quiet < QuietTurns && turns < MostTurns; ++turns) {
            quiet = turn() ? 0 : quiet + 1;
            char block[65536];
            const ssize_t count = ::recv(fd, block, sizeof block, 0);
            if (count == 0 || (count < 0 && errno != EAGAIN))
                break;
            answer.append(block, std::max<int>(0, static_cast<int>(count)));
        }
        ::close(fd);
        return answer;
    }

    /// It still serves others, and nothing of those who left has stayed.
    void check()
    {
        expect(get("/index.html").endsWith(Inside));
        QElapsedTimer timer;
        for (timer.start(); descriptors() > MostDescriptors;) {
            turn();
            expect(timer.elapsed() < 10000);
        }
    }

private:
    static constexpr int MostDescriptors = 400;

    void makeFiles()
    {
        for (const char* folder : { "www/folder", "files", "state" })
            expect(QDir(m_directory.path()).mkpath(folder));
        writeFile(m_directory.filePath("secret"), Outside);
        writeFile(m_directory.filePath("www/index.html"), Inside);
        writeFile(m_directory.filePath("www/large"), QByteArray(300000, 'x'));
        writeFile(m_directory.filePath("files/log"), Inside);
        QFile::link(m_directory.filePath("secret"), m_directory.filePath("www/link"));
    }

    void set(const char* path, const ZarkValue& value)
    {
        auto* node = dynamic_cast<CMValueNode*>(m_root.tree()->node(CMPath::fromEncoded(QString::fromLatin1(path))));
        expect(node && node->override_(value).isEmpty());
    }

    QVariantHash arguments() const { return { { QStringLiteral("state"), m_directory.filePath("state") } }; }

    std::unique_ptr<CMNodesWorker> make(const char* module) const
    {
        QLibrary library(QStringLiteral(MODULES "/libzark_%1.so").arg(QLatin1String(module)));
        const auto create = reinterpret_cast<CMWorkerCreate>(library.resolve("worker_create"));
        expect(create != nullptr);
        return std::unique_ptr<CMNodesWorker>(create(arguments()));
    }

    QByteArray get(const QByteArray& target) { return answerTo("GET " + target + " HTTP/1.1\r\nHost: x\r\n\r\n"); }

    /// Whether anything happened. Qt leaves what is to be deleted later alone outside exec(), unless asked; inside, it
    /// comes after what was posted before.
    static bool turn()
    {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return g_main_context_iteration(nullptr, FALSE);
    }

    static int descriptors() { return static_cast<int>(QDir(QStringLiteral("/proc/self/fd")).count()); }

    int m_argc = 1;
    char m_name[16] = "ServerFuzzer";
    char* m_argv[2] = { m_name, nullptr };
    QCoreApplication m_application{ m_argc, m_argv };
    QTemporaryDir m_directory;
    CMRootWorker m_root;
    std::unique_ptr<CMNodes> m_nodes;
    std::vector<std::unique_ptr<CMNodesWorker>> m_workers;
};

Device& device()
{
    static Device instance; // Taken down at the end: what it has lost by then is a leak.
    return instance;
}

} // namespace

// GLib leaves an array behind for each 2,048 names, which the library keeps for good, and no stack tells that this is
// it.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libglib-2.0.so";
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    expect(enterNetworkNamespace());
    device();
    return 0;
}

/// All of the device behind a socket: whatever is sent, what comes back is HTTP, tells nothing of the files outside,
/// and others are served afterwards. Inputs follow each other on the same device, so a find may need those before it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static int runs = 0;
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QByteArray answer = device().answerTo(bytes);
    expect(answer.isEmpty() || answer.startsWith("HTTP/1."));
    expect(!answer.contains(Outside));
    if (++runs % RunsBetweenChecks == 0)
        device().check();
    return 0;
}
