#pragma once

#include <QString>

/// What is in a file, or comes on standard input, which "-" stands for. Throws a Failure of status ExitUsage.
QByteArray inputOf(const QString& fileName);

/// Throws a Failure of status ExitUsage for what is no UTF-8; `what` names it.
QString textOf(const QByteArray& bytes, const QString& what);

bool isUtf8(const QByteArray& bytes);
