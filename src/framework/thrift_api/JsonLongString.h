#pragma once

#include <QString>

/// The text of a JSON string (RFC 8259, section 7) without its quotes, in one go: byte by byte, as the JSON library
/// reads it, a megabyte takes longer than a server's event loop may stand still. Nothing is returned, in a null text,
/// for what needs that library: a character escaped by its number, and all that is malformed.
QString readLongJsonString(const char* begin, const char* end);
