#pragma once

#include <QByteArrayList>
#include <QMap>
#include <QStringList>

#include "Failure.h"

class Invocation;
class Output;
struct Report;
struct Session;

/// One option. What it takes decides how it is read, helped with and completed.
struct OptionSyntax {
    enum Kind { Flag, Text, File, Number, Choice };

    const char* name; ///< Without the "--".
    char letter; ///< Without the "-"; 0 for none.
    Kind kind;
    const char* takes; ///< "FILE", or the words to choose from: "table|json". Null for a flag.
    const char* help;
};

/// One command: what it takes, what is said about it, and what does it.
struct CommandSyntax {
    enum Argument {
        None,
        Path,
        PathAndValue, ///< A path, then what its node takes.
        FileName,
        Word, ///< One of those that `arguments` lists.
        Command,
    };
    enum Devices {
        Local, ///< Talks to none.
        One,
        Two, ///< One or two, and the session of the first has both targets; as Many when a file is named.
        Many, ///< All that are named, at once.
        Followed, ///< As Many, for as long as the user likes: a thread each, however many.
    };

    const char* name;
    const char* arguments; ///< As the usage line shows them; the words to choose from for Word.
    int minimum;
    int maximum;
    Argument argument; ///< What completion offers for the arguments.
    QByteArrayList options; ///< Besides the common ones.
    Devices devices;
    ExitStatus (*run)(Session&);
    const char* summary; ///< One line.
    const char* details; ///< For `zarkctl help NAME`.
    /// What all devices said, when that is no table or JSON; null otherwise.
    void (*print)(const Invocation&, const QList<Report>&, Output*) = nullptr;
};

const QList<OptionSyntax>& optionTable();
const QList<CommandSyntax>& commandTable();
const QByteArrayList& commonOptions();
const OptionSyntax* findOption(const QString& name);
const CommandSyntax* findCommand(const QString& name);

/// A command line that keeps to the tables.
class Invocation {
public:
    /// `words` without the program's name. An option may stand anywhere; "--" ends them. What begins with a minus and
    /// cannot be an option (-5, -----BEGIN) is an argument. Throws a Failure of status ExitUsage.
    static Invocation parse(const QStringList& words);

    /// The beginning of one, whatever is missing or wrong in it; `command` may be null.
    static Invocation begun(const QStringList& words);

    const CommandSyntax* command = nullptr;
    QStringList arguments;

    bool has(const char* option) const { return m_options.contains(QLatin1String(option)); }
    /// Of an option that comes several times the last one holds.
    QString value(const char* option, const QString& otherwise = {}) const;
    QStringList values(const char* option) const { return m_options.value(QLatin1String(option)); }
    qint64 number(const char* option, qint64 otherwise) const;

private:
    QStringList takeWords(QStringList words);
    void takeOption(const QString& word, const QString& commandName, QStringList* rest);
    void takeLetters(const QString& word, QStringList* rest);
    void store(const OptionSyntax& option, const QString* value, QStringList* rest);
    void check() const;

    QMap<QString, QStringList> m_options;
};
