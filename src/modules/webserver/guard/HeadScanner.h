#pragma once

#include <QByteArray>

/// Follows the bytes of one connection, as they come, from one request's head to the next, and finds the heads that the
/// library's parser would not see as they were sent: it drops a line that it does not like, or makes one of two, and
/// what a proxy in front of the device took for a field, such as "Transfer-Encoding : chunked", is lost without a
/// trace. Refused are (RFC 9112, sections 2.2 and 5):
///
/// - a line without a colon, without a name before it, or with anything in the name that is not of a token;
/// - a line that goes on in the next one;
/// - a NUL, or a carriage return that ends no line;
/// - a request whose method is no token of 32 characters at the most, or whose target is neither a path, "*" nor a URI
///   of HTTP;
/// - a head that ends before its empty line does.
///
/// A line that ends without a carriage return is one, as in the library. Bodies are skipped by their Content-Length;
/// behind a chunked one no request is expected.
///
/// The library also keeps every method and every field's name that it is shown, for good. So it is shown a bounded
/// number of them in the life of the process, no longer ones than anybody needs, and blanks in place of another: a
/// field that says nothing, or is none, or a request that it refuses.
class HeadScanner {
public:
    /// May write to `data`. False when the library must not see it: then the connection has to end.
    bool feed(char* data, qsizetype length);
    /// How many heads have come whole, none of them malformed. It counts no further after a malformed one.
    int wellFormed() const { return m_wellFormed; }
    /// Of the last head that was counted.
    qint64 contentLength() const { return m_contentLength; }

private:
    enum State {
        BeforeHead, ///< Empty lines are passed over.
        InFields,
        InBody,
        Over, ///< After a malformed head, and behind one whose body ends nobody knows where.
    };

    char* takeLine(char* begin, char* end);
    const char* replacement() const;
    const char* findNameEnd(const char* begin, const char* end) const;
    bool mayBeShown(const char* begin, const char* nameEnd, const char* end) const;
    void readLine(const char* begin, const char* nameEnd, const char* end);
    bool readField(const char* begin, const char* nameEnd, const char* end);
    bool readContentLength(const char* begin, const char* end);
    void endHead();

    State m_state = BeforeHead;
    bool m_isMalformed = false;
    bool m_isChunked = false;
    bool m_isHidden = false; ///< What the library must not see has come.
    bool m_isBlanked = false; ///< The rest of the line that has begun.
    int m_wellFormed = 0;
    qint64 m_contentLength = -1; ///< -1: no such field.
    qint64 m_bodyLeft = 0;
    QByteArray m_begun; ///< A line whose end is still to come.
};
