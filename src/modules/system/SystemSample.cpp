#include "SystemSample.h"

#include <QDateTime>
#include <QFile>
#include <QSysInfo>

#include <cstdlib>
#include <ctime>
#include <unistd.h>

namespace {

QByteArray contentOf(const char* name)
{
    QFile file(QString::fromLatin1(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// A line such as "MemTotal:       16316412 kB".
qint64 memoryField(const QByteArray& text, const QByteArray& name)
{
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith(name + ':'))
            return line.mid(name.size() + 1).simplified().split(' ').first().toLongLong() * 1024;
    }
    return 0;
}

} // namespace

ProcessorTimes ProcessorTimes::fromProcStat(const QByteArray& text)
{
    // cpu user nice system idle iowait irq softirq steal guest guest_nice; user and nice hold the guests' time already.
    const QList<QByteArray> fields = text.left(text.indexOf('\n')).simplified().split(' ');
    constexpr int Idle = 4;
    constexpr int IoWait = 5;
    constexpr int Steal = 8;
    ProcessorTimes times;
    if (fields.first() != "cpu")
        return times;
    for (int i = 1; i < fields.size() && i <= Steal; ++i) {
        const qint64 ticks = fields.at(i).toLongLong();
        times.total += ticks;
        if (i != Idle && i != IoWait)
            times.busy += ticks;
    }
    return times;
}

double ProcessorTimes::percentSince(const ProcessorTimes& earlier) const
{
    if (total <= earlier.total)
        return -1;
    // The kernel's waiting time can step back, which would put the share out of its bounds.
    return qBound(0.0, 100.0 * double(busy - earlier.busy) / double(total - earlier.total), 100.0);
}

SystemSample SystemSample::take()
{
    SystemSample sample;
    double loads[3] = {};
    if (getloadavg(loads, 3) == 3) {
        sample.loadOne = loads[0];
        sample.loadFive = loads[1];
        sample.loadFifteen = loads[2];
    }
    sample.processor = ProcessorTimes::fromProcStat(contentOf("/proc/stat"));
    const QByteArray memory = contentOf("/proc/meminfo");
    sample.memoryTotal = memoryField(memory, "MemTotal");
    sample.memoryAvailable = memoryField(memory, "MemAvailable");
    sample.memoryProcess = contentOf("/proc/self/statm").split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE);
    timespec uptime{};
    clock_gettime(CLOCK_BOOTTIME, &uptime);
    sample.uptimeSeconds = uptime.tv_sec;
    sample.nowMs = QDateTime::currentMSecsSinceEpoch();
    sample.hostName = QSysInfo::machineHostName();
    return sample;
}
