#include "ZarkProcessHandler.h"

#include <QDeadlineTimer>
#include <QProcess>

#include <csignal>

#include <unistd.h>

namespace {

/// A process that leads a group, so that its children can be killed with it.
class GroupProcess : public QProcess {
public:
    void killGroup()
    {
        if (state() == Running)
            ::kill(-pid_t(processId()), SIGKILL);
        kill();
        waitForFinished(1000);
    }

protected:
    void setupChildProcess() override { ::setpgid(0, 0); }
};

} // namespace

ZarkProcessResult ZarkProcessHandler::startSync(const QString& program, const QStringList& arguments, int timeoutMs)
{
    // The waits below work without an event loop; a nested one would run other code of the caller meanwhile.
    const QDeadlineTimer deadline(timeoutMs);
    GroupProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, arguments, QIODevice::ReadOnly);
    if (!process.waitForStarted(int(deadline.remainingTime())))
        return { false, process.errorString().toUtf8() };

    const bool ended = process.state() == QProcess::NotRunning || process.waitForFinished(int(deadline.remainingTime()))
        || process.state() == QProcess::NotRunning;
    if (!ended)
        process.killGroup();
    const bool ok = ended && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return { ok, process.readAll() };
}
