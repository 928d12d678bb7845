#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

#include "CMPath.h"

/// What the command line asks for.
struct HostOptions {
    /// One --set: a value for this run only, as text of the node's own type.
    struct Override {
        CMPath path;
        QString text;
    };
    enum class Outcome {
        Run, ///< The options are complete.
        Text, ///< Print the text on standard output and leave with success: help or version.
        Fault, ///< Print the text, one line, on standard error and leave.
    };

    QString treeFile;
    QString stateDirectory;
    QStringList workers; ///< Files or bare module names, in the order in which they start.
    QVector<Override> overrides;
    QString logConfig; ///< Empty: log to standard error at logLevel.
    QString logLevel;
    bool check = false;

    /// Fills `options` from the arguments, the first of which is the program; `text` as Outcome says.
    static Outcome parse(const QStringList& arguments, HostOptions* options, QString* text);
};
