#pragma once

#include <QByteArray>

#include "HttpClient.h"

/// Reads one HTTP/1.x response from bytes as they arrive (RFC 9112). Needs no socket and holds no more than the body
/// limit, one read and one line.
class HttpResponseParser {
public:
    enum State {
        Incomplete, ///< More bytes are needed.
        Complete, ///< result() is the response.
        Malformed, ///< Not HTTP, header fields beyond all measure, or a body cut short.
        TooLarge, ///< The body is, or says it will be, over the limit.
    };

    explicit HttpResponseParser(qint64 bodyLimit) : m_bodyLimit(bodyLimit) { }

    /// Bytes after the end of the response are ignored.
    State feed(const char* data, int size);
    /// The peer has closed: a body without a length ends here, anything else unfinished is Malformed.
    State end();

    HttpClientResult& result() { return m_result; }

private:
    enum Stage { StatusLine, HeaderFields, LengthBody, OpenBody, ChunkSize, ChunkData, ChunkEnd, Trailers };

    bool step();
    bool takeLine(QByteArray* line);
    bool takeBody(qint64 most);
    bool readStatusLine(const QByteArray& line);
    bool readField(const QByteArray& line);
    bool readContentLength(const QByteArray& value);
    bool readChunkSize(const QByteArray& line);
    bool startBody();
    bool fail(State state);

    qint64 m_bodyLimit;
    State m_state = Incomplete;
    Stage m_stage = StatusLine;
    QByteArray m_pending;
    int m_offset = 0; ///< What of m_pending has been used.
    int m_fieldBytes = 0;
    bool m_chunked = false;
    qint64 m_contentLength = -1;
    qint64 m_remaining = 0; ///< Of the body, or of the current chunk.
    HttpClientResult m_result;
};
