#include "Fleet.h"

#include <QFileInfo>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "Session.h"

namespace {

const size_t MostThreads = 64;

struct Run {
    Report report;
    ExitStatus status = ExitOk;
};

void runOne(const Invocation& invocation, QList<Target> targets, int index, Output* output, Run* run)
{
    std::swap(targets[0], targets[index]);
    ApiClient api(targets.first());
    Session session{ invocation, targets, &api, output, run->report };
    try {
        run->status = invocation.command->run(session);
    } catch (const Failure& failure) {
        run->status = failure.status;
        if (!failure.text.isEmpty())
            session.note(failure.text);
    }
    run->report = session.report;
    run->report.answered = run->status != ExitUnreachable;
}

void runAll(const Invocation& invocation, const QList<Target>& targets, Output* output, std::vector<Run>* runs)
{
    std::atomic<int> next{ 0 };
    const auto work = [&] {
        for (int i = next++; i < int(runs->size()); i = next++)
            runOne(invocation, targets, i, output, &(*runs)[size_t(i)]);
    };
    // What has no end needs a thread for each device.
    const bool endless = invocation.command->devices == CommandSyntax::Followed;
    std::vector<std::thread> threads;
    while (threads.size() < (endless ? runs->size() : std::min(runs->size(), MostThreads)))
        threads.emplace_back(work);
    for (std::thread& thread : threads)
        thread.join();
}

/// What compares two devices compares each device with a file, when one is named: only a path has a colon.
bool isForEach(const Invocation& invocation)
{
    const QString first = invocation.arguments.value(0);
    const bool namesFile = !first.isEmpty() && (!first.contains(QLatin1Char(':')) || QFileInfo(first).isFile());
    return invocation.command->devices >= CommandSyntax::Many
        || (invocation.command->devices == CommandSyntax::Two && namesFile);
}

} // namespace

ExitStatus runOnDevices(const Invocation& invocation, const QList<Target>& targets, Output* output)
{
    const CommandSyntax& command = *invocation.command;
    const bool forEach = isForEach(invocation);
    const bool many = forEach && targets.size() > 1;
    const int most = command.devices == CommandSyntax::Two ? 2 : 1;
    if (!forEach && targets.size() > most)
        throw Failure{ ExitUsage,
            QStringLiteral("%1 takes %2 at the most")
                .arg(QLatin1String(command.name))
                .arg(most == 1 ? QStringLiteral("one device") : QStringLiteral("two devices")) };
    std::vector<Run> runs(many ? size_t(targets.size()) : 1);
    for (size_t i = 0; many && i < runs.size(); ++i)
        runs[i].report.device = targets.at(int(i)).name();
    if (many)
        runAll(invocation, targets, output, &runs);
    else
        runOne(invocation, targets, 0, output, &runs.front());
    QList<Report> reports;
    ExitStatus worst = ExitOk;
    for (const Run& run : runs) {
        reports.append(run.report);
        worst = std::max(worst, run.status);
    }
    command.print ? command.print(invocation, reports, output) : output->print(reports);
    return worst;
}
