#pragma once

#include <QString>

/// What a parser found wrong; empty when nothing is.
struct ZarkError {
    QString message;
    int line = 0; ///< 1-based; 0 when the position is unknown.
    int column = 0; ///< 1-based, in characters; 0 when the position is unknown.

    bool isEmpty() const { return message.isEmpty(); }
    /// "line 3, column 14: <message>", or the message alone without a position.
    QString toString() const;
};
