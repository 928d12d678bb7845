#pragma once

#include "ApiClient.h"
#include "CommandLine.h"
#include "Output.h"

/// A command at work on one device; each device has its own, on a thread of its own.
struct Session {
    const Invocation& invocation;
    QList<Target> targets; ///< All that the command line names, this one's first.
    ApiClient* api; ///< Null for commands that need no device.
    Output* output; ///< Of all.
    Report report; ///< Printed when all devices are done.

    const QStringList& arguments() const { return invocation.arguments; }
    const Target& target() const { return targets.first(); }
    bool isAlone() const { return report.device.isEmpty(); }
    /// To standard error, with the device's name where there are several.
    void note(const QString& text) const
    {
        const QString named = target().url.toString() + QStringLiteral(": "); // As some failures do themselves.
        complain(isAlone() ? text : report.device + QStringLiteral(": ") + QString(text).remove(named));
    }
};
