#pragma once

#include <QString>

class Invocation;

/// The password that goes with --user: of --password-file ("-" is standard input), asked for on the terminal, or empty
/// by --empty-password. Throws a Failure of status ExitUsage when there is none: an empty one only by that option.
QString passwordFor(const QString& user, const Invocation& invocation);

/// A new one, of --new-password-file, or asked for twice.
QString newPassword(const Invocation& invocation);

/// A question with the answers y and n, on the terminal. Throws a Failure of status ExitUsage when there is none, which
/// names what answers instead.
bool isConfirmed(const QString& question, const QString& instead);
