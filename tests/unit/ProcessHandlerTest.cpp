#include <QtTest>

#include "Files.h"
#include "Rows.h"
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
    void statusAndOutputAreReported()
    {
        Rows<QString, bool, QByteArray> row;
        row("killed by a signal", "echo bye; kill -9 $$", false, "bye\n");
        row("channels in the order written", "echo 1; echo 2 >&2; echo 3", true, "1\n2\n3\n");
        row("standard input is empty", "cat", true, {});
        row("more than a pipe holds", "head -c 300000 /dev/zero", true, QByteArray(300000, '\0'));
        for (const auto& [script, ok, data] : row) {
            const ZarkProcessResult result = shell(script);
            QCOMPARE(result.getData(), data);
            QCOMPARE(result.finishedOk(), ok);
        }
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
        QVERIFY(timer.elapsed() >= 300 && timer.elapsed() < 10000);
        QVERIFY(!result.finishedOk());
        QCOMPARE(result.getData(), QByteArray("early\n"));

        const QString stat = "/proc/" + contentOf(pidFile).trimmed() + "/stat";
        // A zombie counts as ended: who reaps it is not this library's affair.
        QTRY_VERIFY(contentOf(stat).isEmpty() || contentOf(stat).contains(" Z "));
    }
};

QTEST_GUILESS_MAIN(ProcessHandlerTest)
#include "ProcessHandlerTest.moc"
