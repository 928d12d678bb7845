#include "Fleet.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "Commands.h"
#include "Metrics.h"
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
}

void runAll(const Invocation& invocation, const QList<Target>& targets, Output* output, std::vector<Run>* runs)
{
    std::atomic<int> next{ 0 };
    const auto work = [&] {
        for (int i = next++; i < int(runs->size()); i = next++)
            runOne(invocation, targets, i, output, &(*runs)[size_t(i)]);
    };
    // What has no end needs a thread for each device.
    const bool endless = invocation.command->run == runWatch;
    std::vector<std::thread> threads;
    while (threads.size() < (endless ? runs->size() : std::min(runs->size(), MostThreads)))
        threads.emplace_back(work);
    for (std::thread& thread : threads)
        thread.join();
}

void printReports(
    const Invocation& invocation, const QList<Report>& reports, const QStringList& unreachable, Output* output)
{
    if (invocation.command->run != runMetrics || output->format() != Output::Table)
        return output->print(reports);
    const QByteArray text = metricsText(reports, unreachable);
    if (invocation.has("file"))
        writeMetrics(text, invocation.value("file"));
    else
        output->write(text);
}

} // namespace

ExitStatus runOnDevices(const Invocation& invocation, const QList<Target>& targets, Output* output)
{
    const int most = invocation.command->run == runDiff ? 2 : 1;
    if (invocation.command->devices == CommandSyntax::One && targets.size() > most)
        throw Failure{ ExitUsage,
            QStringLiteral("%1 takes %2")
                .arg(QLatin1String(invocation.command->name),
                    most == 1 ? QStringLiteral("one device") : QStringLiteral("two devices")) };
    const bool many = invocation.command->devices == CommandSyntax::Many && targets.size() > 1;
    std::vector<Run> runs(many ? size_t(targets.size()) : 1);
    for (size_t i = 0; many && i < runs.size(); ++i)
        runs[i].report.device = targets.at(int(i)).name();
    if (many)
        runAll(invocation, targets, output, &runs);
    else
        runOne(invocation, targets, 0, output, &runs.front());
    QList<Report> reports;
    QStringList failed;
    ExitStatus worst = ExitOk;
    for (const Run& run : runs) {
        reports.append(run.report);
        if (run.status == ExitUnreachable)
            failed.append(run.report.device);
        worst = std::max(worst, run.status);
    }
    printReports(invocation, reports, failed, output);
    return worst;
}
