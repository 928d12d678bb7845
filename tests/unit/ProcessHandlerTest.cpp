#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

#include "ZarkProcessHandler.h"

namespace {

ZarkProcessResult shell(const QString& script, int timeoutMs = 10000)
{
    return ZarkProcessHandler::startSync(QStringLiteral("sh"), { QStringLiteral("-c"), script }, timeoutMs);
}

} // namespace

class ProcessHandlerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void statusAndOutputAreReported_data()
    {
        QTest::addColumn<QString>("script");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QByteArray>("data");
        QTest::newRow("killed by a signal") << "echo bye; kill -9 $$" << false << QByteArray("bye\n");
        QTest::newRow("channels in the order written")
            << "echo 1; echo 2 >&2; echo 3" << true << QByteArray("1\n2\n3\n");
        QTest::newRow("standard input is empty") << "cat" << true << QByteArray();
        QTest::newRow("more than a pipe holds") << "head -c 300000 /dev/zero" << true << QByteArray(300000, '\0');
    }

    void statusAndOutputAreReported()
    {
        QFETCH(QString, script);
        const ZarkProcessResult result = shell(script);
        QTEST(result.getData(), "data");
        QTEST(result.finishedOk(), "ok");
    }

    void aMissingProgramIsReportedWithItsReason()
    {
        const ZarkProcessResult result =
            ZarkProcessHandler::startSync(QStringLiteral("zark no such program"), {}, 10000);
        QVERIFY(!result.finishedOk());
        QVERIFY2(result.getData().contains("No such file"), result.getData().constData());
    }

    void aTimeOutEndsTheProgramAndItsChildren()
    {
        const QTemporaryDir dir;
        const QString pidFile = dir.filePath(QStringLiteral("child"));
        QElapsedTimer timer;
        timer.start();
        const ZarkProcessResult result =
            shell(QStringLiteral("echo early; sleep 60 & echo $! > '%1'; wait").arg(pidFile), 300);
        QVERIFY(timer.elapsed() >= 300);
        QVERIFY(timer.elapsed() < 10000);
        QVERIFY(!result.finishedOk());
        QCOMPARE(result.getData(), QByteArray("early\n"));

        QFile file(pidFile);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString stat = QStringLiteral("/proc/%1/stat").arg(QString::fromLatin1(file.readAll().trimmed()));
        // A zombie counts as ended: who reaps it is not this library's affair.
        const auto isRunning = [&stat] {
            QFile entry(stat);
            return entry.open(QIODevice::ReadOnly) && !entry.readAll().contains(" Z ");
        };
        QTRY_VERIFY(!isRunning());
    }
};

QTEST_GUILESS_MAIN(ProcessHandlerTest)
#include "ProcessHandlerTest.moc"
