#include <QFile>

#include "Commands.h"
#include "Session.h"

namespace {

const int OptionColumn = 29;
const int CommandColumn = 12;

QByteArray optionLine(const OptionSyntax& option)
{
    QString name = option.letter ? QStringLiteral("-%1, ").arg(QLatin1Char(option.letter)) : QStringLiteral("    ");
    name += QStringLiteral("--") + QLatin1String(option.name);
    if (option.takes)
        name += QLatin1Char(' ') + QLatin1String(option.takes);
    return "  " + name.leftJustified(OptionColumn).toUtf8() + "  " + option.help;
}

QByteArrayList optionLines(const QByteArrayList& names)
{
    QByteArrayList lines;
    for (const QByteArray& name : names)
        lines.append(optionLine(*findOption(QString::fromLatin1(name))));
    return lines;
}

QByteArrayList overview()
{
    QByteArrayList lines{ "Reads, sets and watches the nodes of a device over its HTTP API.", "",
        "usage: zarkctl COMMAND [OPTIONS] [ARGUMENTS]", "", "Commands (`zarkctl help COMMAND` tells more):" };
    for (const CommandSyntax& command : commandTable())
        lines.append("  " + QByteArray(command.name).leftJustified(CommandColumn) + command.summary);
    lines += { "", "Options of all commands:" };
    lines += optionLines(commonOptions());
    lines += { "", "Environment: ZARK_URL is the device when none is named; NO_COLOR forbids colours.",
        "Exit status: 0 done, 1 failed or different, 2 wrong usage, 3 refused by the device,",
        "4 no such node, 5 no answer of a device, or a certificate that is not trusted." };
    return lines;
}

QByteArrayList helpOf(const CommandSyntax& command)
{
    QByteArrayList lines{ "usage: zarkctl " + (QByteArray(command.name) + ' ' + command.arguments).trimmed(), "",
        QByteArray(command.summary) + '.' };
    if (*command.details)
        lines += QByteArray(command.details).split('\n');
    if (!command.options.isEmpty())
        lines += { "", "Options:" };
    lines += optionLines(command.options);
    if (command.devices != CommandSyntax::Local)
        lines += { "", "`zarkctl help` lists the options of all commands." };
    return lines;
}

} // namespace

ExitStatus runHelp(Session& session)
{
    session.report.bare = true;
    if (session.arguments().isEmpty()) {
        session.report.lines = overview();
        return ExitOk;
    }
    const CommandSyntax* const command = findCommand(session.arguments().first());
    if (!command)
        throw Failure{ ExitUsage, QStringLiteral("unknown command; `zarkctl help` lists them") };
    session.report.lines = helpOf(*command);
    return ExitOk;
}

ExitStatus runVersion(Session& session)
{
    session.report.records.append({ { QStringLiteral("version"), QStringLiteral(ZARKCTL_VERSION) } });
    session.report.lines.append("zarkctl " ZARKCTL_VERSION);
    return ExitOk;
}

ExitStatus runCompletion(Session& session)
{
    const bool zsh = session.arguments().first() == QLatin1String("zsh");
    QFile script(zsh ? QStringLiteral(":/_zarkctl") : QStringLiteral(":/zarkctl.bash"));
    script.open(QIODevice::ReadOnly);
    session.report.bare = true;
    session.report.lines.append(script.readAll().trimmed());
    return ExitOk;
}
