#include <QtTest>

#include <csignal>
#include <cstddef>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "CMStore.h"
#include "Files.h"
#include "Rows.h"

namespace {

const char* const testTree = R"({"nodes": [
  {"path": "test:value", "type": "value", "value": {"type": "i32", "value": 1}, "persistent": true,
   "modifiable": true, "edit": {"minimum": 0, "maximum": 9}},
  {"path": "settings:webserver/port", "type": "value", "value": {"type": "i32", "value": 0}},
  {"path": "test:hangs", "type": "value", "value": {"type": "bool", "value": false}},
  {"path": "test:addresses", "type": "value", "value": {"type": "stringList", "value": []}},
  {"path": "test:errors", "type": "value", "value": {"type": "stringList", "value": []}}
]})";

/// A service manager's socket, in the file system or abstract ("@name").
class NotifySocket {
public:
    explicit NotifySocket(const QByteArray& name) : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, name.constData(), size_t(name.size()));
        if (name.startsWith('@'))
            address.sun_path[0] = '\0';
        m_isBound = bind(m_fd, reinterpret_cast<sockaddr*>(&address),
                        socklen_t(offsetof(sockaddr_un, sun_path) + size_t(name.size())))
            == 0;
    }
    ~NotifySocket() { close(m_fd); }

    bool isBound() const { return m_isBound; }
    /// The next message; empty when none comes within five seconds.
    QByteArray next() const
    {
        char message[256];
        ssize_t size = -1;
        const QDeadlineTimer limit(5000);
        while ((size = recv(m_fd, message, sizeof message, 0)) < 0 && !limit.hasExpired())
            QThread::msleep(2);
        return QByteArray(message, int(qMax<ssize_t>(size, 0)));
    }

private:
    int m_fd;
    bool m_isBound = false;
};

} // namespace

class HostTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        m_directory.reset(new QTemporaryDir);
        m_host.reset(new QProcess);
        m_environment = QProcessEnvironment::systemEnvironment();
        m_environment.remove("JOURNAL_STREAM");
        m_output.clear();
        write("tree.json", testTree);
    }

    void cleanup()
    {
        m_host->kill();
        m_host->waitForFinished();
    }

    void namesTheFaultInOneLine()
    {
        Rows<QString, QByteArray, QString> row;
        const auto add = [&](const char* name, const char* arguments, const char* pattern,
                             const char* tree = testTree) {
            row(name, arguments, tree, QStringLiteral("^zark-host: ") + pattern);
        };
        add("no state", "", "--state DIR is missing$");
        add("log level", "--state s --log-level loud", "--log-level loud: ");
        add("log file with a fault", "--check --log-config tree.json", "tree.json:1: ");
        add("no log file", "--state s --log-config none.ini", "none.ini: ");
        add("state below a file", "--state tree.json/s", "--state tree.json/s: ");
        add("tree is no JSON", "--state s", "tree.json:2: ", "{\"nodes\": [\n  oops]}");
        add("no tree", "--tree none.json --state s", "none.json: ");
        add("missing module, checked", "--check --worker none", "module 'none': .*libzark_none.so$");
        add("module is no library", "--check --worker ./tree.json", "module './tree.json': .*tree.json");
        add("same module twice", "--check --worker " RECORDER_FIRST " --worker /." RECORDER_FIRST,
            "module '/\\./.*' is the same as '/.*'$");
        add("status node taken", "--state s --worker " RECORDER_FIRST,
            "module '.*': the node \"first:status/errors\" is there already$",
            R"({"nodes": [{"path": "first:status/errors", "type": "container"}]})");
        add("set without value", "--check --set test:value", "--set test:value: ");
        add("set of no path", "--check --set value=1", "--set value: ");
        add("set of no node with a module", "--state s --worker player --set player:none=1", "--set player:none: ");
        add("set out of range", "--check --set test:value=10", "--set test:value: ");
        add("set of a module's node out of range", "--state s --worker player --set player:player/volume=101",
            "--set player:player/volume: ");
        for (const auto& [arguments, tree, pattern] : row) {
            init();
            write("tree.json", tree);
            start(QStringList{ "--tree", "tree.json" } + arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts));
            QCOMPARE(finish(), 2);
            QCOMPARE(m_output, QByteArray());
            const QByteArray error = m_host->readAllStandardError();
            QVERIFY2(error.count('\n') == 1 && error.endsWith('\n'), error.constData());
            const QString line = QString::fromUtf8(error).chopped(1);
            QVERIFY2(QRegularExpression(pattern).match(line).hasMatch(), error.constData());
        }
    }

    void refusesAnEventLoopWithoutGlib()
    {
        m_environment.insert("QT_NO_GLIB", "1");
        startRecorders();
        QCOMPARE(finish(), 2);
        QCOMPARE(m_host->readAllStandardError().count('\n'), 1);
        QVERIFY(!QFileInfo::exists(path("state")));
    }

    void checkStartsNothing()
    {
        startRecorders({ "--check", "--set", "first:later=1" });
        QCOMPARE(finish(), 0);
        QCOMPARE(m_output + m_host->readAllStandardError(), QByteArray());
        QVERIFY(!QFileInfo::exists(path("state")));
    }

    void announcesWhatItsWorkersServe()
    {
        Rows<QString, QString, int, QByteArray> row;
        const char* both = "listening on http://a/\nlistening on https://b/\n"
                           "listening on http://a/\nlistening on https://b/\nready\n";
        row("two addresses", "[\"http://a/\", \"https://b/\"]", "[]", 0, both);
        row("one of two failed", "[\"http://a/\"]", "[\"port 443 is busy\"]", 0,
            "listening on http://a/\nlistening on http://a/\nready\n");
        row("all failed", "[]", "[\"port 80 is busy\"]", 3, "");
        row("no server wanted", "[]", "[]", 0, "ready\n");
        for (const auto& [addresses, errors, status, output] : row) {
            init();
            startRecorders({ "--set", QStringLiteral("test:addresses=") + addresses, "--set",
                QStringLiteral("test:errors=") + errors });
            if (status == 0) {
                QVERIFY(waitForReady());
                m_host->terminate();
            }
            QCOMPARE(finish(), status);
            QCOMPARE(m_output, output);
            const bool isBusyLogged = m_host->readAllStandardError().contains("is busy");
            QCOMPARE(isBusyLogged, errors.contains(QLatin1String("is busy")));
        }
    }

    void stopsInReverseOrderOnASignal()
    {
        startRecorders();
        QVERIFY(waitForReady());
        const QDeadlineTimer limit(2000);
        kill(pid_t(m_host->processId()), SIGTERM);
        QCOMPARE(finish(), 0);
        QVERIFY(!limit.hasExpired());
        QCOMPARE(read("state/record"),
            QByteArray("first made with 1\nsecond made with 1\n"
                       "second shuts down\nfirst shuts down\nsecond answers\nfirst answers\n"
                       "second destroyed\nfirst destroyed\n"));
        const QString log = QString::fromUtf8(m_host->readAllStandardError());
        const QRegularExpression expected("^[^\n]* started\n[^\n]* stopping\n[^\n]* stopped\n$");
        QVERIFY2(expected.match(log).hasMatch(), qPrintable(log));
    }

    void leavesAtOnceOnASecondSignal()
    {
        startRecorders({ "--set", "test:hangs=true" });
        QVERIFY(waitForReady());
        kill(pid_t(m_host->processId()), SIGTERM);
        QTRY_VERIFY(read("state/record").contains("shuts down"));
        kill(pid_t(m_host->processId()), SIGINT);
        QCOMPARE(finish(), 128 + SIGINT);
    }

    void reloadsOnHangUp()
    {
        // The log goes nowhere at first, and stays there while the file is missing.
        write("log.ini", "log4cplus.rootLogger=OFF\n");
        startRecorders({ "--log-config", "log.ini" });
        QVERIFY(waitForReady());
        QVERIFY(QFile::remove(path("log.ini")));
        kill(pid_t(m_host->processId()), SIGHUP);
        QTRY_VERIFY(read("state/record").endsWith("first reloads\nsecond reloads\n"));
        write("log.ini",
            "log4cplus.rootLogger=INFO, E\nlog4cplus.appender.E=log4cplus::ConsoleAppender\n"
            "log4cplus.appender.E.logToStdErr=true\n");
        kill(pid_t(m_host->processId()), SIGHUP);
        QTRY_COMPARE(read("state/record").count("reloads"), 4);
        m_host->terminate();
        QCOMPARE(finish(), 0);
        QVERIFY(m_host->readAllStandardError().contains("read the log configuration again"));
    }

    void overridesForOneRunOnly()
    {
        const CMPath value = CMPath::fromEncoded("test:value");
        QString error;
        QVERIFY(QDir(m_directory->path()).mkdir("state"));
        {
            CMStore store;
            QVERIFY(store.open(path("state/state.db"), &error));
            store.write(value, ZarkValue::fromI32(5), {});
        }
        startRecorders({ "--set", "test:value=7" });
        QVERIFY(waitForReady());
        m_host->terminate();
        QCOMPARE(finish(), 0);
        QVERIFY(read("state/record").startsWith("first made with 7\n"));
        CMStore store;
        QVERIFY(store.open(path("state/state.db"), &error));
        QCOMPARE(store.value(value).i32(), 5);
    }

    void keepsTheStateOfTheDemoDevicePrivate()
    {
        start({ "--tree", DEMO_TREE, "--state", "var/state", "--worker", "player", "--log-level", "warn" });
        QVERIFY(waitForReady());
        QCOMPARE(int(QFileInfo(path("var/state")).permissions() & 0x0077), 0);
        m_host->terminate();
        QCOMPARE(finish(), 0);
        QCOMPARE(m_host->readAllStandardError(), QByteArray());
    }

    void tellsTheServiceManager()
    {
        for (const bool isAbstract : { false, true }) {
            init();
            const QByteArray name =
                isAbstract ? "@zark-host-test-" + QByteArray::number(getpid()) : QFile::encodeName(path("notify"));
            const NotifySocket manager(name);
            QVERIFY(manager.isBound());
            m_environment.insert("NOTIFY_SOCKET", QString::fromLocal8Bit(name));
            m_environment.insert("WATCHDOG_USEC", "100000");
            startRecorders();
            QCOMPARE(manager.next(), QByteArray("READY=1"));
            QCOMPARE(manager.next(), QByteArray("WATCHDOG=1"));
            QCOMPARE(manager.next(), QByteArray("WATCHDOG=1"));
            kill(pid_t(m_host->processId()), SIGTERM);
            QByteArray last;
            while ((last = manager.next()) == "WATCHDOG=1") { }
            QCOMPARE(last, QByteArray("STOPPING=1"));
            QCOMPARE(finish(), 0);
        }
    }

    void isNotHeldUpByAManagerThatDoesNotRead()
    {
        const QByteArray name = QFile::encodeName(path("notify"));
        const NotifySocket manager(name);
        QVERIFY(manager.isBound());
        m_environment.insert("NOTIFY_SOCKET", QString::fromLocal8Bit(name));
        // A message each millisecond fills the socket's queue (ten messages by default, hundreds on some machines).
        m_environment.insert("WATCHDOG_USEC", "2000");
        startRecorders();
        QVERIFY(waitForReady());
        QTest::qWait(800);
        const QDeadlineTimer limit(2000);
        m_host->terminate();
        QCOMPARE(finish(), 0);
        QVERIFY(!limit.hasExpired());
    }

    void logsInTheJournalsFormToTheJournalOnly()
    {
        for (const bool isJournal : { true, false }) { // Or it is another file than standard error.
            init();
            write("journal", "");
            struct stat status = {};
            QCOMPARE(stat(QFile::encodeName(path("journal")).constData(), &status), 0);
            m_environment.insert(
                "JOURNAL_STREAM", QStringLiteral("%1:%2").arg(status.st_dev).arg(status.st_ino + (isJournal ? 0 : 1)));
            m_host->setStandardErrorFile(path("journal"));
            startRecorders({ "--set", "test:errors=[\"port 80 is busy\"]" });
            QCOMPARE(finish(), 3);
            const QByteArray log = read("journal");
            QVERIFY2(log.contains("port 80 is busy"), log.constData());
            QCOMPARE(log.startsWith("<3>"), isJournal);
        }
    }

private:
    QString path(const QString& name) const { return m_directory->filePath(name); }
    void write(const QString& name, const QByteArray& content) const { writeFile(path(name), content); }
    QByteArray read(const QString& name) const { return contentOf(path(name)); }

    void start(const QStringList& arguments)
    {
        m_host->setProcessEnvironment(m_environment);
        m_host->setWorkingDirectory(m_directory->path());
        m_host->start(ZARK_HOST, arguments);
    }

    void startRecorders(const QStringList& more = {})
    {
        start(QStringList{
                  "--tree", "tree.json", "--state", "state", "--worker", RECORDER_FIRST, "--worker", RECORDER_SECOND }
            + more);
    }

    bool waitForReady()
    {
        const QDeadlineTimer limit(10000);
        while (!m_output.endsWith("ready\n") && !limit.hasExpired()) {
            m_host->waitForReadyRead(100);
            m_output += m_host->readAllStandardOutput();
        }
        return m_output.endsWith("ready\n");
    }

    /// The exit status; -1 when it crashed or still runs after five seconds.
    int finish()
    {
        const bool finished = m_host->state() == QProcess::NotRunning || m_host->waitForFinished(5000);
        m_output += m_host->readAllStandardOutput();
        return finished && m_host->exitStatus() == QProcess::NormalExit ? m_host->exitCode() : -1;
    }

    QScopedPointer<QTemporaryDir> m_directory;
    QScopedPointer<QProcess> m_host;
    QProcessEnvironment m_environment;
    QByteArray m_output;
};

QTEST_GUILESS_MAIN(HostTest)
#include "HostTest.moc"
