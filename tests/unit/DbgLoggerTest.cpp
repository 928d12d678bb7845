#include <QtTest>

#include <unistd.h>

#include "Files.h"
#include "Rows.h"
#include "dbglog.h"

namespace {

/// Standard error goes to a file while this lives.
class StandardErrorCapture {
public:
    StandardErrorCapture() : m_saved(::dup(STDERR_FILENO))
    {
        if (m_file.open())
            ::dup2(m_file.handle(), STDERR_FILENO);
    }
    ~StandardErrorCapture()
    {
        ::dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
    }
    QByteArray text() const { return contentOf(m_file.fileName()); }

private:
    QTemporaryFile m_file;
    const int m_saved;
};

const DbgLogger& logger()
{
    static const DbgLogger instance("Unit");
    return instance;
}

} // namespace

class DbgLoggerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theJournalFormCarriesPriorities()
    {
        const StandardErrorCapture capture;
        QVERIFY(!logger().isEnabled(log4cplus::INFO_LOG_LEVEL));
        QVERIFY(DbgLogger::configure(QStringLiteral("debug"), true));
        int evaluated = 0;
        dbglog_trace(logger(), "never " << ++evaluated);
        dbglog_debug(logger(), "d");
        dbglog_info(logger(), "i " << QStringLiteral("ü") << QByteArray("b"));
        dbglog_warn(logger(), "w");
        dbglog_error(logger(), "e");
        dbglog_fatal(logger(), "f");
        QVERIFY(DbgLogger::configure(QStringLiteral("off"), true));
        dbglog_fatal(logger(), "never " << ++evaluated);
        QCOMPARE(evaluated, 0);
        QCOMPARE(capture.text(),
            QByteArray("<7>Unit: d\n<6>Unit: i \xC3\xBC"
                       "b\n<4>Unit: w\n<3>Unit: e\n<2>Unit: f\n"));
    }

    void thePlainFormCarriesTheTime()
    {
        const StandardErrorCapture capture;
        QVERIFY(DbgLogger::configure(QStringLiteral("trace"), false));
        {
            dbglog_scopedFunction(logger());
        }
        const QString lines = QString::fromUtf8(capture.text());
        const QRegularExpression expected(
            QStringLiteral("^(\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}[+-]\\d{4} TRACE "
                           "Unit: (Enter|Leave) [^\n]*thePlainFormCarriesTheTime\\(\\)\n){2}$"));
        QVERIFY2(expected.match(lines).hasMatch(), qPrintable(lines));
    }

    void remoteTextCannotForgeALine()
    {
        const StandardErrorCapture capture;
        QVERIFY(DbgLogger::configure(QStringLiteral("warn"), true));
        dbglog_warn(logger(), "x\r\n<2>Unit: forged\t\x1b[2J" << std::string(1, '\0') << "\x7f\xC2\x9B \xC3\xA9");
        QCOMPARE(capture.text(), QByteArray("<4>Unit: x\\r\\n<2>Unit: forged\\t\\x1b[2J\\x00\\x7f\\x9b \xC3\xA9\n"));
    }

    void faultsOfAPropertyFileAreNamed()
    {
        Rows<QByteArray, QString> row;
        const auto add = [&](const char* fault, const QByteArray& text) {
            row(text.trimmed().split('\n').constLast(), text, fault);
        };
        const QByteArray root = "log4cplus.rootLogger=INFO, A\n";
        const QByteArray good = root + "log4cplus.appender.A=log4cplus::ConsoleAppender\n";
        add("", "# quiet\n\nlog4cplus.rootLogger = off\n");
        qputenv("LOG_DIRECTORY", "/dev");
        add("",
            good
                + "log4cplus.appender.A.layout = "
                  "log4cplus::TTCCLayout\r\nlog4cplus.appender.B=log4cplus::FileAppender\n"
                  "log4cplus.appender.B.File=${LOG_DIRECTORY}/null\n");
        add("3: neither a comment nor \"key=value\"", good + "oops\n");
        add("3: the key \"log4cplus.rootLogger\" comes twice", good + root);
        add("1: unknown key \"log4cplus.rootLoger\"", "log4cplus.rootLoger=INFO\n");
        add("3: unknown key \"log4cplus.appender.A.logToStdEr\"", good + "log4cplus.appender.A.logToStdEr=true\n");
        add("1: there is no appender \"A\"", root);
        add("3: unknown level \"LOUD\"", good + "log4cplus.logger.Unit=LOUD\n");
        add("3: unknown level \"LOUD\"", good + "log4cplus.appender.A.Threshold=LOUD\n");
        add("2: unknown class \"log4cplus::ConsolAppender\"",
            root + "log4cplus.appender.A=log4cplus::ConsolAppender\n");
        add("2: unknown class \"log4cplus::RolingFileAppender\"",
            root + "log4cplus.appender.A=log4cplus::RolingFileAppender\nlog4cplus.appender.A.File=/dev/null\n");
        add("3: unknown class \"PatternLayout\"", good + "log4cplus.appender.A.layout=PatternLayout\n");
        add("3: \"log4cplus.appender.A.layout.ConversionPattern\" is missing",
            good + "log4cplus.appender.A.layout=log4cplus::PatternLayout\n");
        add("3: \"/no/such/log\" cannot be written", good + "log4cplus.appender.A.File=/no/such/log\n");
        add("1: nothing would be logged: no logger has an appender", "log4cplus.rootLogger=INFO\n");
        for (const auto& [text, fault] : row) {
            QTemporaryFile file;
            QVERIFY(file.open() && file.write(text) == text.size());
            file.close();
            QVERIFY(DbgLogger::configure(QStringLiteral("debug"), true));
            QString error;
            QCOMPARE(DbgLogger::configureFromFile(file.fileName(), &error), fault.isEmpty());
            QCOMPARE(error, fault.isEmpty() ? QString() : file.fileName() + ':' + fault);
            // What was in force stays in force.
            QCOMPARE(logger().isEnabled(log4cplus::DEBUG_LOG_LEVEL), !fault.isEmpty());
        }
    }
};

QTEST_GUILESS_MAIN(DbgLoggerTest)
#include "DbgLoggerTest.moc"
