#include "HostOptions.h"

#include <QCommandLineParser>

namespace {

struct Flags {
    QCommandLineOption tree{ QStringLiteral("tree"), QStringLiteral("Tree file that declares the device's nodes."),
        QStringLiteral("FILE") };
    QCommandLineOption state{ QStringLiteral("state"), QStringLiteral("Directory of what persists; made when missing."),
        QStringLiteral("DIR") };
    QCommandLineOption worker{ QStringLiteral("worker"),
        QStringLiteral("Module to start: a file, or a name such as \"player\". May be repeated."),
        QStringLiteral("LIB") };
    QCommandLineOption set{ QStringLiteral("set"),
        QStringLiteral("Value of a node for this run only. May be repeated."), QStringLiteral("PATH=VALUE") };
    QCommandLineOption logConfig{ QStringLiteral("log-config"), QStringLiteral("log4cplus property file."),
        QStringLiteral("FILE") };
    QCommandLineOption logLevel{ QStringLiteral("log-level"),
        QStringLiteral("trace, debug, info, warn, error, fatal or off."), QStringLiteral("LEVEL"),
        QStringLiteral("info") };
    QCommandLineOption check{ QStringLiteral("check"),
        QStringLiteral("Look for faults in the options, the tree and the modules; start nothing.") };
    QCommandLineOption help{ { QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Print this text.") };
    QCommandLineOption version{ QStringLiteral("version"), QStringLiteral("Print the version.") };

    void addTo(QCommandLineParser* parser) const
    {
        parser->setApplicationDescription(QStringLiteral("Runs a configuration tree and the modules that serve it."));
        parser->addOptions({ tree, state, worker, set, logConfig, logLevel, check, help, version });
    }
};

QString flagsFault(const QCommandLineParser& parser, const Flags& flags)
{
    if (!parser.positionalArguments().isEmpty())
        return QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().constFirst());
    if (parser.value(flags.tree).isEmpty())
        return QStringLiteral("--tree FILE is missing");
    // A check starts nothing and therefore needs no place for what persists.
    if (parser.value(flags.state).isEmpty() && !parser.isSet(flags.check))
        return QStringLiteral("--state DIR is missing");
    if (parser.isSet(flags.logConfig) && parser.isSet(flags.logLevel))
        return QStringLiteral("--log-config and --log-level exclude each other");
    return {};
}

QString parseOverrides(const QStringList& texts, QVector<HostOptions::Override>* overrides)
{
    for (const QString& text : texts) {
        const int equals = text.indexOf(QLatin1Char('='));
        if (equals < 0)
            return QStringLiteral("--set %1: no '=' between path and value").arg(text);
        const QString path = text.left(equals);
        overrides->append({ CMPath::fromEncoded(path), text.mid(equals + 1) });
        if (!overrides->constLast().path.isValid())
            return QStringLiteral("--set %1: not a path").arg(path);
    }
    return {};
}

} // namespace

HostOptions::Outcome HostOptions::parse(const QStringList& arguments, HostOptions* options, QString* text)
{
    const Flags flags;
    QCommandLineParser parser;
    flags.addTo(&parser);
    // Not process(): that prints and leaves in its own way.
    if (!parser.parse(arguments)) {
        *text = parser.errorText();
        return Outcome::Fault;
    }
    if (parser.isSet(flags.help) || parser.isSet(flags.version)) {
        *text = parser.isSet(flags.help) ? parser.helpText() : QStringLiteral("zark-host " ZARK_VERSION "\n");
        return Outcome::Text;
    }
    options->treeFile = parser.value(flags.tree);
    options->stateDirectory = parser.value(flags.state);
    options->workers = parser.values(flags.worker);
    options->logConfig = parser.value(flags.logConfig);
    options->logLevel = parser.value(flags.logLevel);
    options->check = parser.isSet(flags.check);
    *text = flagsFault(parser, flags);
    if (text->isEmpty() && options->workers.removeDuplicates() > 0)
        *text = QStringLiteral("--worker names the same module twice");
    if (text->isEmpty())
        *text = parseOverrides(parser.values(flags.set), &options->overrides);
    return text->isEmpty() ? Outcome::Run : Outcome::Fault;
}
