#pragma once

#include <QVariant>

/// Values as people and scripts read and write them.
namespace ValueText {

/// The plain value inside {"type", "value"}; anything else as it is.
QVariant plain(const QVariant& value);
/// For scripts: a text as it is, everything else as compact JSON, nothing for null.
QByteArray bare(const QVariant& value);
/// For a table: one line, without control characters; a text is not quoted.
QString cell(const QVariant& value);
/// Without control characters, which could steer a terminal; line ends and tabs as well unless `lines`.
QString printable(const QString& text, bool lines = false);

/// What an argument means: the text itself, the contents of the file behind "@", or standard input for "-" (without its
/// last line end). With `literal` always the text. Throws a Failure.
QByteArray given(const QString& argument, bool literal);
/// `text` as a value of the type that a node has: {"type", "value"}. A text for a string, Base64 (of the bytes
/// themselves when they are from a file) for bytes, JSON for the rest. Without a type, or one that is not known here,
/// JSON and else a text. Invalid when it is none of the type.
QVariant typed(const QByteArray& text, const QString& type, bool fromFile);

/// All that typed() takes for a type, where that is a few words; empty otherwise.
QStringList wordsOf(const QString& type);
/// What typed() takes for a type, for people.
QString formOf(const QString& type);

} // namespace ValueText
