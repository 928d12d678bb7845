#pragma once

#include <QByteArray>
#include <QString>

/// Time that all processors together spent since the start, in clock ticks.
struct ProcessorTimes {
    qint64 busy = 0;
    qint64 total = 0;

    /// From the first line of /proc/stat; all zero when it cannot be read.
    static ProcessorTimes fromProcStat(const QByteArray& text);
    /// The share of busy time between `earlier` and this, 0 to 100; -1 when no tick passed.
    double percentSince(const ProcessorTimes& earlier) const;
};

/// The state of this machine at one moment. What the kernel does not tell stays 0 or empty.
struct SystemSample {
    double loadOne = 0;
    double loadFive = 0;
    double loadFifteen = 0;
    ProcessorTimes processor;
    qint64 memoryTotal = 0; ///< Bytes, as all of these.
    qint64 memoryAvailable = 0;
    qint64 memoryProcess = 0; ///< Resident, of this process.
    qint64 uptimeSeconds = 0; ///< With the time asleep.
    qint64 nowMs = 0; ///< Since the epoch.
    QString hostName;

    /// Reads a few files of /proc; any thread.
    static SystemSample take();
};
