#pragma once

#include <QByteArray>
#include <QString>

/// The text as UTF-8 in which nothing is markup, neither between tags nor in a quoted attribute value. Characters that
/// HTML does not have become U+FFFD.
QByteArray escapeHtml(const QString& text);

/// Whether a URL that starts with this text leads to a web page, or to nowhere, and can run nothing: it has no scheme,
/// or one of http and https.
bool isHarmlessUrl(const QString& start);
