#pragma once

#include <QString>

#include "CMNodesWorker.h"

/// Finds modules and loads them. A module stays loaded until the process ends: its loggers and types live in static
/// storage that others refer to.
class ModuleLoader {
public:
    /// `libraryDirectory` is where bare names are looked for.
    explicit ModuleLoader(const QString& libraryDirectory) : m_libraryDirectory(libraryDirectory) { }

    /// The function that makes the worker of `module`, a file or a bare name ("player"). Null, with a sentence that
    /// names the file in `error`, when the file is missing, is no library or exports no such function.
    CMWorkerCreate load(const QString& module, QString* error) const;

private:
    QString fileOf(const QString& module) const;

    QString m_libraryDirectory;
};
