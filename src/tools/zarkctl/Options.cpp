#include "Options.h"

#include <QCommandLineParser>

namespace {

/// What one command takes after its name, besides the common options.
struct CommandSyntax {
    const char* name;
    Options::Command command;
    int minimumArguments;
    int maximumArguments;
    QStringList options;
    const char* usage;
};

const QList<CommandSyntax>& commands()
{
    using Command = Options::Command;
    static const QList<CommandSyntax> list{
        { "get", Command::Get, 1, 1, { "roles", "structure" }, "get PATH [--roles a,b|@all] [--structure]" },
        { "rows", Command::Rows, 1, 1, { "roles", "from", "to" }, "rows PATH [--roles a,b] [--from N] [--to N]" },
        { "set", Command::Set, 2, 2, { "role" }, "set PATH VALUE [--role value]" },
        { "watch", Command::Watch, 1, 1000, { "rows", "count" }, "watch PATH... [--rows] [--count N]" },
        { "passwd", Command::Passwd, 0, 0, { "new-password-file" }, "passwd [--new-password-file FILE]" },
    };
    return list;
}

const CommandSyntax* findCommand(const QString& name)
{
    for (const CommandSyntax& syntax : commands()) {
        if (name == QLatin1String(syntax.name))
            return &syntax;
    }
    return nullptr;
}

QStringList commonOptions()
{
    return { "url", "user", "password-file", "ca", "help" };
}

void describe(QCommandLineParser* parser)
{
    QString usages;
    for (const CommandSyntax& syntax : commands())
        usages += QLatin1String("\n  zarkctl [options] ") + QLatin1String(syntax.usage);
    parser->setApplicationDescription("Reads, sets and watches the nodes of a device over its HTTP API.\n" + usages
        + "\n\nA value is JSON, or else plain text; put -- before one that begins with a minus sign."
          "\nExit status: 0 done, 1 the device refused, 2 wrong usage, 3 no answer.");
    parser->addOptions({
        { "url", "The device; http://localhost:8080 by default.", "URL", "http://localhost:8080" },
        { "user", "Sign requests as this user.", "NAME" },
        { "password-file", "The first line is the user's password.", "FILE" },
        { "ca", "Trust this certificate authority (PEM).", "FILE" },
        { "roles", "get, rows: the roles to read; title,value by default.", "LIST", "title,value" },
        { "structure", "get: an object of roles instead of a list." },
        { "from", "rows: the first row.", "N", "0" },
        { "to", "rows: the last row, inclusive.", "N" },
        { "role", "set: the role to set.", "ROLE", "value" },
        { "rows", "watch: changes of a list's rows too." },
        { "count", "watch: stop after so many events.", "N" },
        { "new-password-file", "passwd: the first line is the new password; standard input by default.", "FILE" },
        { { "h", "help" }, "This text." },
    });
}

/// The option's number in `value`; false when it is given and no number from 0 up.
bool readNumber(const QCommandLineParser& parser, const QString& name, qint64* value)
{
    if (parser.value(name).isEmpty() && !parser.isSet(name))
        return true;
    bool ok = false;
    *value = parser.value(name).toLongLong(&ok);
    return ok && *value >= 0;
}

QString wrongOption(const QCommandLineParser& parser, const CommandSyntax& syntax)
{
    for (const QString& name : parser.optionNames()) {
        if (!commonOptions().contains(name) && !syntax.options.contains(name))
            return name;
    }
    return {};
}

QString checkSyntax(const QCommandLineParser& parser, const CommandSyntax& syntax, int arguments)
{
    if (arguments < syntax.minimumArguments || arguments > syntax.maximumArguments)
        return QStringLiteral("usage: zarkctl ") + QLatin1String(syntax.usage);
    const QString wrong = wrongOption(parser, syntax);
    if (!wrong.isEmpty())
        return QStringLiteral("%1 takes no option --%2").arg(QLatin1String(syntax.name), wrong);
    if (syntax.command == Options::Command::Passwd && !parser.isSet("user"))
        return QStringLiteral("passwd needs --user");
    if (parser.isSet("password-file") && !parser.isSet("user"))
        return QStringLiteral("--password-file needs --user");
    return {};
}

QString fill(const QCommandLineParser& parser, Options* options)
{
    options->url = QUrl(parser.value("url"), QUrl::StrictMode);
    const QString scheme = options->url.scheme();
    if (!options->url.isValid() || options->url.host().isEmpty() || (scheme != "http" && scheme != "https"))
        return QStringLiteral("no http or https URL: ") + parser.value("url");
    const QList<QPair<QString, qint64*>> numbers{ { "from", &options->from }, { "to", &options->to },
        { "count", &options->count } };
    for (const auto& number : numbers) {
        if (!readNumber(parser, number.first, number.second))
            return QStringLiteral("--%1 takes a number from 0 up").arg(number.first);
    }
    options->user = parser.value("user");
    options->passwordFile = parser.value("password-file");
    options->caFile = parser.value("ca");
    options->roles = parser.value("roles").split(QLatin1Char(','));
    options->structure = parser.isSet("structure");
    options->role = parser.value("role");
    options->rowEvents = parser.isSet("rows");
    options->newPasswordFile = parser.value("new-password-file");
    return {};
}

} // namespace

std::optional<Options> Options::parse(const QStringList& arguments, QString* error, bool* help)
{
    QCommandLineParser parser;
    describe(&parser);
    const bool parsed = parser.parse(arguments);
    *help = parsed && parser.isSet("help");
    QStringList words = parser.positionalArguments();
    if (!parsed || *help) {
        *error = parsed ? parser.helpText() : parser.errorText();
        return {};
    }
    if (words.isEmpty()) {
        *error = QStringLiteral("no command; see zarkctl --help");
        return {};
    }
    const QString name = words.takeFirst();
    const CommandSyntax* syntax = findCommand(name);
    *error = syntax ? checkSyntax(parser, *syntax, words.size()) : QStringLiteral("unknown command: ") + name;
    Options options;
    if (error->isEmpty())
        *error = fill(parser, &options);
    if (!error->isEmpty())
        return {};
    options.command = syntax->command;
    if (options.command == Command::Set)
        options.value = words.takeLast();
    options.paths = words;
    return options;
}
