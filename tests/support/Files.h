#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// Empty when it cannot be read.
QByteArray contentOf(const QString& name);
/// Makes the file, or replaces what is in it; directories on the way are made. Ends the process when that fails.
void writeFile(const QString& name, const QByteArray& content);

/// What a program said (both outputs) and how it ended; status -1 when it did not end by itself in 20 s.
struct ToolResult {
    int status = -1;
    QByteArray output;
};
/// Runs a program with `input` as its standard input.
ToolResult runTool(const QString& program, const QStringList& arguments, const QByteArray& input = {});
