#pragma once

#include <QString>
#include <QUrl>

/// One device, and how to talk to it.
struct Target {
    QUrl url; ///< http or https, with a host, without the scheme's own port.
    QString user; ///< Empty: requests are not signed.
    QString password;
    QString caFile; ///< PEM; may be empty.
    int timeoutSeconds = 0; ///< 0: the defaults.
    QString profile = {}; ///< Where it was read; empty for none.

    QString name() const; ///< For people: host and port.
};

/// "host", "host:port" or a URL without user and password. Throws a Failure of status ExitUsage.
QUrl urlFrom(const QString& text);
