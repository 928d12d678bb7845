#pragma once

#include <QString>

/// What zarkctl tells the shell.
enum ExitStatus {
    ExitOk = 0,
    ExitFailed = 1, ///< The device or this machine could not do it, or two things differ.
    ExitUsage = 2, ///< The command line, or a file that it names, is wrong.
    ExitRefused = 3, ///< The device does not let this user, or does not take this value.
    ExitNotFound = 4, ///< No such node.
    ExitUnreachable = 5, ///< No answer, one that is no device's, or a certificate that is not trusted.
};

/// Ends a command; thrown by value and caught where the command was started, never across a callback of libcurl.
/// The text is for people and holds no secret.
struct Failure {
    ExitStatus status;
    QString text;
    QString name = {}; ///< Of the device's error, such as "outdatedVersion"; empty for all others.
};
