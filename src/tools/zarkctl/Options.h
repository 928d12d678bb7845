#pragma once

#include <optional>

#include <QStringList>
#include <QUrl>

/// The command line as a record.
struct Options {
    enum class Command { Get, Rows, Set, Watch, Passwd };

    Command command = Command::Get;
    QUrl url; ///< http or https, with a host.
    QString user; ///< Empty: requests are not signed.
    QString passwordFile; ///< Empty: the password is empty.
    QString caFile; ///< PEM of the authority to trust besides the system's.
    QStringList paths; ///< One; one or more for watch; none for passwd.
    QStringList roles;
    bool structure = false;
    qint64 from = 0; ///< First row, 0 or more.
    qint64 to = -1; ///< Last row, inclusive; -1: to the end.
    QString value; ///< As typed: JSON, or plain text.
    QString role; ///< The role to set.
    bool rowEvents = false;
    qint64 count = -1; ///< Events to wait for; -1: no end.
    QString newPasswordFile; ///< Empty: standard input.

    /// `arguments` begins with the program's name. Nothing when they are wrong, with a sentence in `error`, and when
    /// help was asked for: `help` is true then, and `error` holds it.
    static std::optional<Options> parse(const QStringList& arguments, QString* error, bool* help);
};
