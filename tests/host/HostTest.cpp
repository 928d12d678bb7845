#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

#include <csignal>
#include <cstddef>

#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "CMStore.h"

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

/// A client that writes a persistent value, again and again.
class Writer {
public:
    explicit Writer(quint16 port)
    {
        QObject::connect(&m_socket, &QTcpSocket::connected, &m_socket, [this] { write(); });
        QObject::connect(&m_socket, &QTcpSocket::readyRead, &m_socket, [this] { read(); });
        m_socket.connectToHost(QHostAddress::LocalHost, port);
    }
    int answers() const { return m_answers; }
    bool isRefused() const { return m_isRefused; } ///< Some answer was another than 200.

private:
    void write()
    {
        const QByteArray body =
            R"({"path": "test:value", "role": "value", "value": )" + QByteArray::number(m_answers % 9) + "}";
        m_socket.write("POST /api/setData HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
                       "Content-Length: "
            + QByteArray::number(body.size()) + "\r\n\r\n" + body);
    }
    void read()
    {
        m_answer += m_socket.readAll();
        if (!m_answer.endsWith('}'))
            return;
        m_isRefused = m_isRefused || !m_answer.startsWith("HTTP/1.1 200");
        m_answer.clear();
        ++m_answers;
        write();
    }

    QTcpSocket m_socket;
    QByteArray m_answer;
    int m_answers = 0;
    bool m_isRefused = false;
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
        m_environment.remove(QStringLiteral("JOURNAL_STREAM"));
        m_output.clear();
        write(QStringLiteral("tree.json"), testTree);
    }

    void cleanup()
    {
        m_host->kill();
        m_host->waitForFinished();
    }

    void namesTheFaultInOneLine_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<QByteArray>("tree");
        QTest::addColumn<QString>("pattern");
        const auto row = [](const char* name, const char* arguments, const char* pattern, const char* tree = testTree) {
            QTest::newRow(name) << QString::fromLatin1(arguments) << QByteArray(tree)
                                << (QStringLiteral("^zark-host: ") + QLatin1String(pattern));
        };
        row("no state", "--tree tree.json", "--state DIR is missing$");
        row("log level", "--tree tree.json --state s --log-level loud", "--log-level loud: ");
        row("log file with a fault", "--tree tree.json --check --log-config tree.json", "tree.json:1: ");
        row("no log file", "--tree tree.json --state s --log-config none.ini", "none.ini: ");
        row("state below a file", "--tree tree.json --state tree.json/s", "--state tree.json/s: ");
        row("tree is no JSON", "--tree tree.json --state s", "tree.json:2: ", "{\"nodes\": [\n  oops]}");
        row("misspelled key", "--tree tree.json --state s", "tree.json:3: .*\"titel\"",
            "{\"nodes\": [\n  {\"path\": \"a:b\", \"type\": \"container\"},\n"
            "  {\"path\": \"a:c\", \"type\": \"container\", \"titel\": \"C\"}]}");
        row("value out of its bounds", "--tree tree.json --check", "tree.json:2: ",
            "{\"nodes\": [\n  {\"path\": \"a:b\", \"type\": \"value\", \"value\": {\"type\": \"i32\", \"value\": 7},\n"
            "   \"edit\": {\"maximum\": 6}}]}");
        row("path declared twice", "--tree tree.json --state s", "tree.json:3: .*a:b",
            "{\"nodes\": [\n  {\"path\": \"a:b\", \"type\": \"container\"},\n  {\"path\": \"a:b\", \"type\": "
            "\"container\"}]}");
        row("missing module, checked", "--tree tree.json --check --worker none", "module 'none': .*libzark_none.so$");
        row("module is no library", "--tree tree.json --check --worker ./tree.json",
            "module './tree.json': .*tree.json");
        row("same module twice", "--tree tree.json --check --worker " RECORDER_FIRST " --worker /." RECORDER_FIRST,
            "module '/\\./.*' is the same as '/.*'$");
        row("status node taken", "--tree tree.json --state s --worker " RECORDER_FIRST,
            "module '.*': the node \"first:status/errors\" is there already$",
            R"({"nodes": [{"path": "first:status/errors", "type": "container"}]})");
        row("set without value", "--tree tree.json --check --set test:value", "--set test:value: ");
        row("set of no path", "--tree tree.json --check --set value=1", "--set value: ");
        row("set of no node with a module", "--tree tree.json --state s --worker player --set player:none=1",
            "--set player:none: ");
        row("set out of range", "--tree tree.json --check --set test:value=10", "--set test:value: ");
        row("set of a module's node out of range",
            "--tree tree.json --state s --worker player --set player:player/volume=101",
            "--set player:player/volume: ");
    }

    void namesTheFaultInOneLine()
    {
        QFETCH(QString, arguments);
        QFETCH(QByteArray, tree);
        QFETCH(QString, pattern);
        write(QStringLiteral("tree.json"), tree);
        start(arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts));
        QCOMPARE(finish(), 2);
        QCOMPARE(m_output, QByteArray());
        const QByteArray error = m_host->readAllStandardError();
        QVERIFY2(error.count('\n') == 1 && error.endsWith('\n'), error.constData());
        const QString line = QString::fromUtf8(error).chopped(1);
        QVERIFY2(QRegularExpression(pattern).match(line).hasMatch(), error.constData());
    }

    void refusesAnEventLoopWithoutGlib()
    {
        m_environment.insert(QStringLiteral("QT_NO_GLIB"), QStringLiteral("1"));
        startRecorders();
        QCOMPARE(finish(), 2);
        QCOMPARE(m_host->readAllStandardError().count('\n'), 1);
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("state"))));
    }

    void checkStartsNothing()
    {
        startRecorders({ QStringLiteral("--check"), QStringLiteral("--set"), QStringLiteral("first:later=1") });
        QCOMPARE(finish(), 0);
        QCOMPARE(m_output + m_host->readAllStandardError(), QByteArray());
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("state"))));
    }

    void announcesWhatItsWorkersServe_data()
    {
        QTest::addColumn<QString>("addresses");
        QTest::addColumn<QString>("errors");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("output");
        const auto row = [](const char* name, const char* addresses, const char* errors, int status,
                             const char* output) {
            QTest::newRow(name) << QString::fromLatin1(addresses) << QString::fromLatin1(errors) << status
                                << QByteArray(output);
        };
        const char* both = "listening on http://a/\nlistening on https://b/\n"
                           "listening on http://a/\nlistening on https://b/\nready\n";
        row("two addresses", "[\"http://a/\", \"https://b/\"]", "[]", 0, both);
        row("one of two failed", "[\"http://a/\"]", "[\"port 443 is busy\"]", 0,
            "listening on http://a/\nlistening on http://a/\nready\n");
        row("all failed", "[]", "[\"port 80 is busy\"]", 3, "");
        row("no server wanted", "[]", "[]", 0, "ready\n");
    }

    void announcesWhatItsWorkersServe()
    {
        QFETCH(QString, addresses);
        QFETCH(QString, errors);
        QFETCH(int, status);
        QFETCH(QByteArray, output);
        startRecorders({ QStringLiteral("--set"), QStringLiteral("test:addresses=") + addresses,
            QStringLiteral("--set"), QStringLiteral("test:errors=") + errors });
        if (status == 0) {
            QVERIFY(waitForReady());
            m_host->terminate();
        }
        QCOMPARE(finish(), status);
        QCOMPARE(m_output, output);
        const bool isBusyLogged = m_host->readAllStandardError().contains("is busy");
        QCOMPARE(isBusyLogged, errors.contains(QLatin1String("is busy")));
    }

    void stopsInReverseOrderOnASignal()
    {
        startRecorders();
        QVERIFY(waitForReady());
        QElapsedTimer timer;
        timer.start();
        kill(pid_t(m_host->processId()), SIGTERM);
        QCOMPARE(finish(), 0);
        QVERIFY2(timer.elapsed() < 2000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(read(QStringLiteral("state/record")),
            QByteArray("first made with 1\nsecond made with 1\n"
                       "second shuts down\nfirst shuts down\nsecond answers\nfirst answers\n"
                       "second destroyed\nfirst destroyed\n"));
        const QString log = QString::fromUtf8(m_host->readAllStandardError());
        const QRegularExpression expected(QStringLiteral("^[^\n]* started\n[^\n]* stopping\n[^\n]* stopped\n$"));
        QVERIFY2(expected.match(log).hasMatch(), qPrintable(log));
    }

    void answersWhatIsBeingWrittenWhenItStops()
    {
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        const quint16 port = probe.serverPort();
        probe.close();
        start({ "--tree", "tree.json", "--state", "state", "--worker", "webserver", "--set",
            QStringLiteral("settings:webserver/port=%1").arg(port) });
        QVERIFY(waitForReady());
        Writer first(port);
        Writer second(port);
        QTRY_VERIFY(first.answers() > 3 && second.answers() > 3);
        // The disk is slow from here on.
        sqlite3* other = nullptr;
        QCOMPARE(sqlite3_open(QFile::encodeName(path("state/state.db")).constData(), &other), SQLITE_OK);
        sqlite3_busy_timeout(other, 5000);
        QCOMPARE(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
        QTest::qWait(100);
        const int before = first.answers() + second.answers();
        QElapsedTimer timer;
        timer.start();
        m_host->terminate();
        QTest::qWait(200);
        sqlite3_close(other);
        QTRY_COMPARE(m_host->state(), QProcess::NotRunning);
        QVERIFY2(timer.elapsed() < 2000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(finish(), 0);
        QCOMPARE(first.answers() + second.answers(), before + 2);
        QVERIFY(!first.isRefused() && !second.isRefused());
    }

    void leavesAtOnceOnASecondSignal()
    {
        startRecorders({ QStringLiteral("--set"), QStringLiteral("test:hangs=true") });
        QVERIFY(waitForReady());
        kill(pid_t(m_host->processId()), SIGTERM);
        QTRY_VERIFY(read(QStringLiteral("state/record")).contains("shuts down"));
        kill(pid_t(m_host->processId()), SIGINT);
        QCOMPARE(finish(), 128 + SIGINT);
    }

    void reloadsOnHangUp()
    {
        // The log goes nowhere at first, and stays there while the file is missing.
        write(QStringLiteral("log.ini"), "log4cplus.rootLogger=OFF\n");
        startRecorders({ QStringLiteral("--log-config"), QStringLiteral("log.ini") });
        QVERIFY(waitForReady());
        QVERIFY(QFile::remove(path(QStringLiteral("log.ini"))));
        kill(pid_t(m_host->processId()), SIGHUP);
        QTRY_VERIFY(read(QStringLiteral("state/record")).endsWith("first reloads\nsecond reloads\n"));
        write(QStringLiteral("log.ini"),
            "log4cplus.rootLogger=INFO, E\nlog4cplus.appender.E=log4cplus::ConsoleAppender\n"
            "log4cplus.appender.E.logToStdErr=true\n");
        kill(pid_t(m_host->processId()), SIGHUP);
        QTRY_COMPARE(read(QStringLiteral("state/record")).count("reloads"), 4);
        m_host->terminate();
        QCOMPARE(finish(), 0);
        QVERIFY(m_host->readAllStandardError().contains("read the log configuration again"));
    }

    void overridesForOneRunOnly()
    {
        const CMPath value = CMPath::fromEncoded(QStringLiteral("test:value"));
        const QString database = path(QStringLiteral("state.db"));
        QString error;
        {
            CMStore store;
            QVERIFY(store.open(database, &error));
            store.write(value, ZarkValue::fromI32(5), {});
        }
        QVERIFY(QDir(m_directory->path()).mkdir(QStringLiteral("state")));
        QVERIFY(QFile::rename(database, path(QStringLiteral("state/state.db"))));
        startRecorders({ QStringLiteral("--set"), QStringLiteral("test:value=7") });
        QVERIFY(waitForReady());
        m_host->terminate();
        QCOMPARE(finish(), 0);
        QVERIFY(read(QStringLiteral("state/record")).startsWith("first made with 7\n"));
        CMStore store;
        QVERIFY(store.open(path(QStringLiteral("state/state.db")), &error));
        QCOMPARE(store.value(value).i32(), 5);
    }

    void runsTheDemoDeviceAndKeepsItsStatePrivate()
    {
        start({ QStringLiteral("--tree"), QStringLiteral(DEMO_TREE), QStringLiteral("--state"),
            QStringLiteral("var/state"), QStringLiteral("--worker"), QStringLiteral("player"),
            QStringLiteral("--log-level"), QStringLiteral("warn") });
        QVERIFY(waitForReady());
        const QFileInfo state(path(QStringLiteral("var/state")));
        QCOMPARE(int(state.permissions() & 0x0077), 0);
        m_host->terminate();
        QCOMPARE(finish(), 0);
        QCOMPARE(m_host->readAllStandardError(), QByteArray());
    }

    void tellsTheServiceManager_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::newRow("socket file") << QByteArray();
        QTest::newRow("abstract socket") << "@zark-host-test-" + QByteArray::number(getpid());
    }

    void tellsTheServiceManager()
    {
        QFETCH(QByteArray, name);
        if (name.isEmpty())
            name = QFile::encodeName(path(QStringLiteral("notify")));
        const NotifySocket manager(name);
        QVERIFY(manager.isBound());
        m_environment.insert(QStringLiteral("NOTIFY_SOCKET"), QString::fromLocal8Bit(name));
        m_environment.insert(QStringLiteral("WATCHDOG_USEC"), QStringLiteral("100000"));
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

    void isNotHeldUpByAManagerThatDoesNotRead()
    {
        const QByteArray name = QFile::encodeName(path(QStringLiteral("notify")));
        const NotifySocket manager(name);
        QVERIFY(manager.isBound());
        m_environment.insert(QStringLiteral("NOTIFY_SOCKET"), QString::fromLocal8Bit(name));
        // A message each millisecond fills the socket's queue (ten messages by default, hundreds on some machines).
        m_environment.insert(QStringLiteral("WATCHDOG_USEC"), QStringLiteral("2000"));
        startRecorders();
        QVERIFY(waitForReady());
        QTest::qWait(800);
        QElapsedTimer timer;
        timer.start();
        m_host->terminate();
        QCOMPARE(finish(), 0);
        QVERIFY2(timer.elapsed() < 2000, qPrintable(QString::number(timer.elapsed())));
    }

    void logsInTheJournalsFormToTheJournalOnly_data()
    {
        QTest::addColumn<bool>("isJournal");
        QTest::newRow("the journal is standard error") << true;
        QTest::newRow("the journal is another file") << false;
    }

    void logsInTheJournalsFormToTheJournalOnly()
    {
        QFETCH(bool, isJournal);
        struct stat status = {};
        const QString journal = write(QStringLiteral("journal"), "");
        QCOMPARE(stat(QFile::encodeName(journal).constData(), &status), 0);
        m_environment.insert(QStringLiteral("JOURNAL_STREAM"),
            QStringLiteral("%1:%2").arg(status.st_dev).arg(status.st_ino + (isJournal ? 0 : 1)));
        m_host->setStandardErrorFile(journal);
        startRecorders({ QStringLiteral("--set"), QStringLiteral("test:errors=[\"port 80 is busy\"]") });
        QCOMPARE(finish(), 3);
        const QByteArray log = read(QStringLiteral("journal"));
        QVERIFY2(log.contains("port 80 is busy"), log.constData());
        QCOMPARE(log.startsWith("<3>"), isJournal);
    }

private:
    QString path(const QString& name) const { return m_directory->filePath(name); }
    QString write(const QString& name, const QByteArray& content) const
    {
        QFile file(path(name));
        if (!file.open(QFile::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write a file of the test");
        return file.fileName();
    }
    QByteArray read(const QString& name) const
    {
        QFile file(path(name));
        return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
    }

    void start(const QStringList& arguments)
    {
        m_host->setProcessEnvironment(m_environment);
        m_host->setWorkingDirectory(m_directory->path());
        m_host->start(QStringLiteral(ZARK_HOST), arguments);
    }

    void startRecorders(const QStringList& more = {})
    {
        start(QStringList{ QStringLiteral("--tree"), QStringLiteral("tree.json"), QStringLiteral("--state"),
                  QStringLiteral("state"), QStringLiteral("--worker"), QStringLiteral(RECORDER_FIRST),
                  QStringLiteral("--worker"), QStringLiteral(RECORDER_SECOND) }
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
