#pragma once

#include <memory>

#include "CMUpdateNode.h"
#include "MultipartResponder.h"

class Message;
class QSocketNotifier;

/// POST /firmware/update: the part "firmware" goes into the framework's update pipe, as fast as its reader takes it; a
/// part "sha256", before it or behind it, holds the sum that it must have, in hexadecimal digits.
///
/// Who may write a protected node may update; the signature covers the URI alone, since it is judged before the body.
/// The answer is {"bytes": N, "sha256": "..."} once the image is kept. 409 while another image is on its way, 413 for
/// one beyond the limit, 400 for a body that is missing or malformed or holds no image or two, 500 when the reader gave
/// up. Destroyed before the end, it drops the image.
class FirmwareUpdateResponder : public MultipartResponder {
    Q_OBJECT
public:
    using MultipartResponder::MultipartResponder;
    ~FirmwareUpdateResponder() override;

    static bool wants(const Message& message);

    void respond() override;
    bool isFull() const override { return !m_unwritten.isEmpty(); }
    void bodyEnded(MultipartParser::Error error) override;

    void partBegan(const MultipartPart& part) override;
    void partData(const char* data, qsizetype length) override;
    void partEnded() override;

private:
    enum Part { Other, Image, Sum };

    void refuse(int status, const char* name, const char* message);
    void beginImage(const MultipartPart& part);
    qsizetype write(const char* data, qsizetype length);
    void writeRest();
    void finishIfWritten();
    void conclude(const CMUpdateResult& result, const CMError& error);

    qint64 m_limit = 0; ///< Of the image, in bytes.
    qint64 m_expected = -1; ///< Bytes of the body, -1 when the head does not tell.
    qint64 m_received = 0; ///< Bytes of the image.
    qint64 m_otherReceived = 0; ///< Bytes of all other parts.
    Part m_part = Other;
    QByteArray m_sum; ///< As sent.
    QByteArray m_unwritten; ///< What the pipe had no room for.
    bool m_hadImage = false;
    bool m_bodyEnded = false;
    bool m_answered = false;
    std::unique_ptr<CMUpdate> m_update;
    std::unique_ptr<QSocketNotifier> m_writable; ///< Of the pipe; gone before it.
};
