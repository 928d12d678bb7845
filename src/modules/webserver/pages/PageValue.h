#pragma once

#include <QString>
#include <QVariant>

/// The value of a role as people read it: texts (in the UI language) and numbers plain, "true" and "false", lists
/// joined by ", ", anything else as JSON; empty for null. Of a typed value, the value inside.
QString textOfRole(const QVariant& value);

/// What setData takes for a form's text, given what a node holds: a value of the same type. "true", "on" and "1" are
/// true; numbers are JSON's. Of a node that holds none, a command, it is the text itself, and null for an empty one.
/// Invalid, with a sentence in `problem`, for a text that is no such value.
QVariant valueOfText(const QString& text, const QVariant& held, QString* problem);
