#pragma once

#include <QByteArray>
#include <QList>

/// Cuts JSON text into pieces without reading its numbers, so that 64-bit integers print exactly as the device sent
/// them (QJsonDocument holds every number as a double). The text must be valid JSON: check with QJsonDocument first.
namespace JsonText {

/// The elements of an array, each without the white space around it; empty for anything but an array.
QList<QByteArray> elements(const QByteArray& array);

/// The value of an object's member; empty when there is none. Keys are compared as written, escapes and all.
QByteArray member(const QByteArray& object, const QByteArray& key);

} // namespace JsonText
