#include "CommandLine.h"

#include <algorithm>

namespace {

const int LongestOption = 40;

/// Whether a word is meant as an option. Only what can be one is ever repeated in a message: the rest may be a secret.
bool looksLikeOption(const QString& word)
{
    if (word.size() < 2 || word.at(0) != QLatin1Char('-'))
        return false;
    const QString name = word.mid(word.startsWith(QLatin1String("--")) ? 2 : 1).section(QLatin1Char('='), 0, 0);
    return !name.isEmpty() && name.size() <= LongestOption && name.at(0).isLetter() && name.at(0).unicode() < 128;
}

[[noreturn]] void refuse(const QString& text)
{
    throw Failure{ ExitUsage, text };
}

void checkChoice(const QString& name, const char* choices, const QString& value)
{
    QStringList words = QString::fromLatin1(choices).split(QLatin1Char('|'));
    if (!words.contains(value))
        refuse(QStringLiteral("%1 takes one of %2").arg(name, words.join(QStringLiteral(", "))));
}

void checkValue(const OptionSyntax& option, const QString& value)
{
    const QString name = QStringLiteral("--") + QLatin1String(option.name);
    bool ok = true;
    if (option.kind == OptionSyntax::Number && (value.toLongLong(&ok) < 0 || !ok))
        refuse(name + QStringLiteral(" takes a number from 0 up"));
    if (option.kind == OptionSyntax::Choice)
        checkChoice(name, option.takes, value);
    if (option.kind == OptionSyntax::File && value.isEmpty())
        refuse(name + QStringLiteral(" takes the name of a file"));
}

const OptionSyntax* findLetter(QChar letter)
{
    for (const OptionSyntax& option : optionTable()) {
        if (option.letter && letter == QLatin1Char(option.letter))
            return &option;
    }
    return nullptr;
}

} // namespace

const OptionSyntax* findOption(const QString& name)
{
    const auto& table = optionTable();
    const auto found = std::find_if(
        table.begin(), table.end(), [&name](const OptionSyntax& option) { return name == QLatin1String(option.name); });
    return found == table.end() ? nullptr : &*found;
}

const CommandSyntax* findCommand(const QString& name)
{
    const auto& table = commandTable();
    const auto found = std::find_if(table.begin(), table.end(),
        [&name](const CommandSyntax& command) { return name == QLatin1String(command.name); });
    return found == table.end() ? nullptr : &*found;
}

QString Invocation::value(const char* option, const QString& otherwise) const
{
    return has(option) ? values(option).constLast() : otherwise;
}

qint64 Invocation::number(const char* option, qint64 otherwise) const
{
    return has(option) ? value(option).toLongLong() : otherwise;
}

/// Stores the options; the rest, in its order.
QStringList Invocation::takeWords(QStringList words)
{
    QStringList plain;
    while (!words.isEmpty()) {
        const QString word = words.takeFirst();
        if (word == QLatin1String("--"))
            plain += std::exchange(words, {});
        else if (!looksLikeOption(word))
            plain += word;
        else if (word.startsWith(QLatin1String("--")))
            takeOption(word, plain.value(0), &words);
        else
            takeLetters(word, &words);
    }
    return plain;
}

Invocation Invocation::parse(const QStringList& words)
{
    Invocation invocation;
    QStringList plain = invocation.takeWords(words);
    if (invocation.has("help"))
        plain.prepend(QStringLiteral("help"));
    else if (invocation.has("version"))
        plain = QStringList{ QStringLiteral("version") };
    if (plain.isEmpty())
        refuse(QStringLiteral("no command; `zarkctl help` lists them"));
    const QString name = plain.takeFirst();
    invocation.command = findCommand(name);
    if (!invocation.command)
        refuse(QStringLiteral("unknown command: %1; `zarkctl help` lists them").arg(name.left(LongestOption)));
    invocation.arguments = invocation.has("help") ? plain.mid(0, 1) : plain;
    if (!invocation.has("help"))
        invocation.check();
    return invocation;
}

Invocation Invocation::begun(const QStringList& words)
{
    Invocation invocation;
    try {
        const QStringList plain = invocation.takeWords(words);
        invocation.command = findCommand(plain.value(0));
        invocation.arguments = plain.mid(1);
    } catch (const Failure&) {
        return invocation;
    }
    return invocation;
}

void Invocation::takeOption(const QString& word, const QString& commandName, QStringList* rest)
{
    const QString name = word.mid(2).section(QLatin1Char('='), 0, 0);
    const OptionSyntax* const option = findOption(name);
    const bool maybeValue = commandName == QLatin1String("set") || commandName == QLatin1String("call");
    if (!option && maybeValue) // Which may be a secret.
        refuse(QStringLiteral("unknown option; -- goes before a value that begins with a minus"));
    if (!option)
        refuse(QStringLiteral("unknown option: --") + name);
    const bool joined = word.contains(QLatin1Char('='));
    const QString value = word.section(QLatin1Char('='), 1);
    store(*option, joined ? &value : nullptr, rest);
}

/// "-r", "-rl", "-o json", "-ojson".
void Invocation::takeLetters(const QString& word, QStringList* rest)
{
    for (int at = 1; at < word.size(); ++at) {
        const OptionSyntax* const option = findLetter(word.at(at));
        // "-hunter2" is a value that has lost its "--", and no wish for help.
        if (!option || (option->letter == 'h' && word.size() > 2))
            refuse(QStringLiteral("unknown option: -") + word.at(at));
        const QString joined = word.mid(at + 1);
        if (option->kind == OptionSyntax::Flag)
            store(*option, nullptr, rest);
        else
            return store(*option, joined.isEmpty() ? nullptr : &joined, rest);
    }
}

void Invocation::store(const OptionSyntax& option, const QString* value, QStringList* rest)
{
    const QString name = QLatin1String(option.name);
    if (option.kind == OptionSyntax::Flag && value)
        refuse(QStringLiteral("--%1 takes nothing").arg(name));
    if (option.kind != OptionSyntax::Flag && !value && rest->isEmpty())
        refuse(QStringLiteral("--%1 takes %2").arg(name, QLatin1String(option.takes)));
    QString text;
    if (option.kind != OptionSyntax::Flag)
        text = value ? *value : rest->takeFirst();
    if (option.kind != OptionSyntax::Flag)
        checkValue(option, text);
    m_options[name].append(text);
}

void Invocation::check() const
{
    const QString name = QLatin1String(command->name);
    if (arguments.size() < command->minimum || arguments.size() > command->maximum)
        refuse(QStringLiteral("usage: zarkctl %1 %2").arg(name, QLatin1String(command->arguments)).trimmed());
    if (command->argument == CommandSyntax::Word)
        checkChoice(name, command->arguments, arguments.first());
    for (auto it = m_options.cbegin(); it != m_options.cend(); ++it) {
        const QByteArray option = it.key().toLatin1();
        if (!commonOptions().contains(option) && !command->options.contains(option))
            refuse(QStringLiteral("%1 takes no option --%2").arg(name, it.key()));
    }
}
