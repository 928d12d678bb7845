#pragma once

#include <QByteArray>

#include <libsoup/soup.h>

/// Positions of bytes in a file, both inclusive (RFC 9110, section 14.1.2).
struct ByteRange {
    qint64 first = 0;
    qint64 last = -1;

    qint64 length() const { return last - first + 1; }
};

/// What a request's Range field asks of a file.
struct RangeRequest {
    enum Kind {
        Whole, ///< No Range field, or none that could be understood.
        Single, ///< `range`, which lies inside the file.
        Several, ///< More than one range, which are not looked at any further.
        Unsatisfiable, ///< One range that begins beyond the end, or the last 0 bytes.
    };

    Kind kind = Whole;
    ByteRange range; ///< Of a Single.
    int count = 0; ///< How many ranges there are, the ones that overlap taken as one.
};

/// Reads the Range field for a file of `length` bytes, which is above 0. May rewrite numbers in the field that are too
/// large for any file.
RangeRequest readRange(SoupMessageHeaders* requestHeaders, qint64 length);

/// The field with every number that has no place in 63 bits replaced by one that is beyond any file as well.
QByteArray withBoundedNumbers(const QByteArray& field);
/// What the library made of one range, in the bounds of a file of `length` bytes.
RangeRequest clamped(qint64 start, qint64 end, qint64 length);
