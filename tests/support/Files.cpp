#include "Files.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>

QByteArray contentOf(const QString& name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString& name, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(name).path());
    QFile file(name);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(name));
}

ToolResult runTool(const QString& program, const QStringList& arguments, const QByteArray& input)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(20000) || process.exitStatus() != QProcess::NormalExit)
        return { -1, process.readAll() };
    return { process.exitCode(), process.readAll() };
}
