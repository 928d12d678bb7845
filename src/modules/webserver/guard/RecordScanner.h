#pragma once

#include <QtGlobal>

#include <array>

/// Sees whether a TLS client shakes hands: records of a handshake are of a type of their own, which nobody encrypts
/// (RFC 5246, section 6.2.1), so it takes no more than the five bytes in front of each record. TLS 1.3 hides the type
/// of what follows its one handshake (RFC 8446, section 5.2).
class RecordScanner {
public:
    /// The next bytes from the client. True when a record of a handshake begins within them.
    bool feed(const char* data, qsizetype length);

private:
    std::array<unsigned char, 5> m_header{}; ///< Type, version (2), length (2).
    size_t m_headerBytes = 0; ///< Of the present record's header, that have come.
    qsizetype m_left = 0; ///< Of its content.
};
