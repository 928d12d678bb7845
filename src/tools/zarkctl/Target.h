#pragma once

#include <QUrl>

class Invocation;

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

/// The devices that a command line, the environment and the profiles name: each --url, each line of --urls, each
/// --profile; without any of them ZARK_URL, then the profile "default", then http://localhost:8080. Asks for a password
/// that is needed and given nowhere. Throws a Failure of status ExitUsage.
QList<Target> targetsOf(const Invocation& invocation);

/// "host", "host:port" or a URL without user and password. Throws a Failure of status ExitUsage.
QUrl urlFrom(const QString& text);
