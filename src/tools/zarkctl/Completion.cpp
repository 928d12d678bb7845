#include "Completion.h"

#include "CommandLine.h"
#include "NodeWriter.h"
#include "Nodes.h"
#include "Session.h"
#include "Targets.h"

namespace {

const int TimeoutSeconds = 2; ///< Somebody waits at a prompt.
const char* const Files = "<files>";

QStringList pathsFor(const QString& typed, ApiClient* api)
{
    QStringList paths;
    const int slash = typed.lastIndexOf(QLatin1Char('/'));
    for (const NodeEntry& node : Nodes(api, {}).children(slash < 0 ? QStringLiteral(":") : typed.left(slash)))
        paths.append(node.type == QLatin1String("container") ? node.path + QLatin1Char('/') : node.path);
    return paths;
}

QByteArrayList askedFor(const QString& typed, const Invocation& invocation)
{
    // Nothing is asked for on a terminal that a shell is editing a line on.
    if (invocation.has("user") && !invocation.has("password-file") && !invocation.has("empty-password"))
        return {};
    try {
        Target target = targetsOf(invocation).first();
        target.timeoutSeconds = TimeoutSeconds;
        ApiClient api(target);
        const bool isValue =
            invocation.command->argument == CommandSyntax::PathAndValue && !invocation.arguments.isEmpty();
        QByteArrayList words;
        for (const QString& word :
            isValue ? NodeWriter(&api, invocation.arguments.first()).choices() : pathsFor(typed, &api))
            words.append(word.toUtf8());
        return words;
    } catch (const Failure&) {
        return {};
    }
}

QByteArrayList commandNames()
{
    QByteArrayList names;
    for (const CommandSyntax& command : commandTable())
        names.append(command.name);
    return names;
}

QByteArrayList valuesOf(const OptionSyntax& option)
{
    if (option.kind == OptionSyntax::File)
        return { Files };
    return option.kind == OptionSyntax::Choice ? QByteArray(option.takes).split('|') : QByteArrayList();
}

QByteArrayList argumentsOf(const CommandSyntax& command, const QString& typed, const Invocation& invocation)
{
    switch (command.argument) {
    case CommandSyntax::Path:
    case CommandSyntax::PathAndValue:
        return askedFor(typed, invocation);
    case CommandSyntax::FileName:
        return { Files };
    case CommandSyntax::Word:
        return QByteArray(command.arguments).split('|');
    case CommandSyntax::Command:
        return commandNames();
    case CommandSyntax::None:
        break;
    }
    return {};
}

QByteArrayList candidates(const QStringList& before, const QString& typed)
{
    const QString previous = before.isEmpty() ? QString() : before.last();
    const OptionSyntax* option = previous.startsWith(QLatin1String("--")) ? findOption(previous.mid(2)) : nullptr;
    for (const OptionSyntax& known : optionTable()) {
        if (known.letter && previous == QStringLiteral("-%1").arg(QLatin1Char(known.letter)))
            option = &known;
    }
    if (option && option->kind != OptionSyntax::Flag)
        return valuesOf(*option);
    const Invocation invocation = Invocation::begun(before);
    QByteArrayList words;
    if (typed.startsWith(QLatin1Char('-'))) {
        for (const QByteArray& name :
            (invocation.command ? invocation.command->options : QByteArrayList()) + commonOptions())
            words.append("--" + name);
    } else if (invocation.command) {
        return argumentsOf(*invocation.command, typed, invocation);
    } else {
        return commandNames();
    }
    return words;
}

} // namespace

QByteArrayList completionsOf(const QStringList& words)
{
    const QString typed = words.isEmpty() ? QString() : words.last();
    QByteArrayList fitting;
    for (const QByteArray& word : candidates(words.mid(0, words.size() - 1), typed)) {
        if (word == Files || word.startsWith(typed.toUtf8()))
            fitting.append(word);
    }
    return fitting;
}
