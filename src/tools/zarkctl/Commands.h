#pragma once

#include <functional>

#include "ApiClient.h"
#include "ExitStatus.h"
#include "Options.h"

/// The commands: each asks the device, writes what it answered to standard output, and returns the exit status.
class Commands {
public:
    /// `print` takes one line without its end; `complain` takes an error's text.
    using Print = std::function<void(const QByteArray& line)>;
    using Complain = std::function<void(const QString& text)>;

    Commands(ApiClient* client, const Print& print, const Complain& complain);

    ExitStatus get(const QString& path, const QStringList& roles, bool structure);
    /// One line a row, all of one version of the list; starts again when the list changes meanwhile.
    ExitStatus rows(const QString& path, const QStringList& roles, qint64 from, qint64 to);
    ExitStatus set(const QString& path, const QString& role, const QString& value);
    /// One line an event, until `count` of them came (-1: for ever).
    ExitStatus watch(const QStringList& paths, bool rowEvents, qint64 count);
    /// Both passwords travel encrypted. The client must have a signer.
    ExitStatus changePassword(const QString& user, const QString& oldPassword, const QString& newPassword);

private:
    ExitStatus fail(const ApiReply& reply);
    ExitStatus printBody(const ApiReply& reply);
    ApiReply readAllRows(const QString& path, const QString& roles, qint64 from, qint64 to, QList<QByteArray>* rows);
    ApiReply openQueue(const QByteArray& subscriptions);

    ApiClient* m_client;
    Print m_print;
    Complain m_complain;
};
