#pragma once

#include <QByteArray>

#include "PartHeader.h"

/// Takes what a MultipartParser finds, in the order of the body.
class MultipartSink {
public:
    virtual void partBegan(const MultipartPart& part) = 0;
    /// `data` is lent for the call.
    virtual void partData(const char* data, qsizetype length) = 0;
    virtual void partEnded() = 0;
    virtual ~MultipartSink() = default;
};

/// Splits a multipart body (RFC 2046, section 5.1) as it arrives, in constant memory, however the bytes are cut into
/// pieces. What looks like a boundary but does not end its line is data. Knows nothing of HTTP.
class MultipartParser {
public:
    struct Limits {
        int headerBytes = 8 * 1024; ///< Of one part, with its line ends.
        int parts = 100;
        int preambleBytes = 8 * 1024; ///< What stands before the first boundary.
        int epilogueBytes = 64 * 1024; ///< What stands behind the last one; none of it is looked at.
    };

    enum Error {
        NoError,
        BadBoundary, ///< Empty, longer than 70 characters or with characters that no boundary has.
        PreambleTooLong, ///< Or no boundary at all.
        HeaderTooLong,
        HeaderMalformed, ///< No field name, or a Content-Disposition that is not form-data.
        TooManyParts,
        EpilogueTooLong,
        Unterminated, ///< The body ended before its final boundary.
    };

    /// `boundary` is the bare text, as boundaryOf() gives it. The sink is not owned.
    MultipartParser(const QByteArray& boundary, const Limits& limits, MultipartSink* sink);

    /// The bare boundary behind "boundary=" in a Content-Type field: without quotes and later parameters. Empty when it
    /// cannot be one (RFC 2046, section 5.1.1).
    static QByteArray boundaryOf(const QByteArray& parameter);

    /// False after the first error, which stays; nothing reaches the sink any more.
    bool feed(const char* data, qsizetype length);
    /// The body has ended. False when that was too early.
    bool finish();
    Error error() const { return m_error; }
    int partCount() const { return m_partCount; }

private:
    enum State { Preamble, Header, DataBegin, Data, Epilogue };
    enum Ending { Unknown, NextPart, LastPart, None };

    bool skip(qsizetype epilogueLength);
    qsizetype step(const char* data, qsizetype length);
    qsizetype readUntilBoundary(const char* data, qsizetype length);
    qsizetype readHeader(const char* data, qsizetype length);
    qsizetype readBlankLine(const char* data, qsizetype length);
    qsizetype readBoundary(const char* data, qsizetype length);
    static Ending endingOf(const char* rest, qsizetype length, qsizetype* taken);
    void give(const char* data, qsizetype length);
    void endPart(State next);
    void beginPart(const QByteArray& header);
    bool fail(Error error);

    QByteArray m_delimiter; ///< CR LF "--" boundary
    Limits m_limits;
    MultipartSink* m_sink;
    State m_state = Preamble;
    Error m_error = NoError;
    /// What could be the beginning of a boundary, or of a header's end; the body's first boundary has no line end
    /// before it, so one is put there.
    QByteArray m_held = QByteArrayLiteral("\r\n");
    qint64 m_preambleBytes = 0;
    qint64 m_epilogueBytes = 0;
    int m_partCount = 0;
};
