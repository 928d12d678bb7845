#pragma once

#include <memory>

#include "PipeTransfer.h"
#include "SignedResponder.h"

class CMStreamNode;
class QSocketNotifier;

/// /api/stream/<encoded path>: what a stream node's pipe holds, as it comes, under the node's MIME type.
///
/// Whoever may read the node may read the stream. Over plain HTTP nothing but the pipe waits for the client, over HTTPS
/// 256 KiB at the most: as long as they do, nothing is read from the pipe, and its writer waits too. The pipe is closed
/// with the responder, which dies with its request.
class StreamResponder : public SignedResponder {
    Q_OBJECT
public:
    using SignedResponder::SignedResponder;
    ~StreamResponder() override;

    void respond() override;

private:
    const CMStreamNode* findStream(QString* path) const;
    void start(const CMStreamNode& stream);
    void readSome();
    void goOn();

    int m_pipe = -1; ///< The reading end.
    std::unique_ptr<PipeTransfer> m_transfer; ///< Over plain HTTP; else:
    std::unique_ptr<QSocketNotifier> m_readable;
};
