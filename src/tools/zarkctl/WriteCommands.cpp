#include "Commands.h"
#include "NodeWriter.h"
#include "Session.h"
#include "ValueText.h"

namespace {

/// Standard input is read once, whatever the number of devices.
QByteArray givenOnce(const Session& session, int argument)
{
    static std::mutex mutex;
    static QMap<int, QByteArray> read;
    const std::lock_guard<std::mutex> lock(mutex);
    if (!read.contains(argument))
        read.insert(argument, ValueText::given(session.arguments().at(argument), session.invocation.has("literal")));
    return read.value(argument);
}

bool isFromFile(const Session& session, int argument)
{
    const QString text = session.arguments().at(argument);
    return !session.invocation.has("literal") && (text == QLatin1String("-") || text.startsWith(QLatin1Char('@')));
}

} // namespace

ExitStatus runSet(Session& session)
{
    const QByteArray given = givenOnce(session, 1);
    NodeWriter node(session.api, session.arguments().first());
    const QVariant old = node.value();
    QVariant value = node.read(given, isFromFile(session, 1));
    node.check(value);
    const bool dry = session.invocation.has("dry-run");
    if (!dry)
        value = node.write(value);
    const QVariant hidden = QStringLiteral("(secret)");
    session.report.records.append(
        { { QStringLiteral("path"), node.path() }, { QStringLiteral("old"), node.isSecret() ? hidden : old },
            { QStringLiteral("new"), node.isSecret() ? hidden : value } });
    const auto& shown = session.report.records.first();
    const QString line = QStringLiteral("%1: %2 → %3%4")
                             .arg(node.path(), ValueText::cell(shown.at(1).second), ValueText::cell(shown.at(2).second),
                                 dry ? QStringLiteral(" (not set)") : QString());
    session.report.lines.append(line.toUtf8());
    return ExitOk;
}

ExitStatus runCall(Session& session)
{
    const QString path = session.arguments().first();
    QVariant argument = QVariant::fromValue(nullptr);
    if (session.arguments().size() > 1) {
        const QByteArray given = givenOnce(session, 1);
        const bool text = session.invocation.has("literal");
        argument = text ? QVariant(QString::fromUtf8(given)) : ValueText::typed(given, {}, false);
    }
    const QVariant result = session.api->setData(path, QStringLiteral("activate"), argument);
    session.report.records.append({ { QStringLiteral("path"), path }, { QStringLiteral("result"), result } });
    if (!ValueText::bare(result).isEmpty())
        session.report.lines.append(ValueText::printable(QString::fromUtf8(ValueText::bare(result)), true).toUtf8());
    else
        session.report.lines.append(QByteArrayLiteral("done"));
    return ExitOk;
}
