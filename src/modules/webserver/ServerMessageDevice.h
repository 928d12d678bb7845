#pragma once

#include <QIODevice>
#include <QList>

class Message;

/// A sequential device that writes the response body of one exchange. Each write is one chunk, and bytesWritten() comes
/// only when the HTTP library has sent it, so a writer that waits for it keeps a bounded amount in flight.
///
/// The message outlives the device, or is reported finished first; then the device closes and emits bytesWritten(0).
class ServerMessageDevice : public QIODevice {
    Q_OBJECT
public:
    ServerMessageDevice(Message* msg, QObject* parent);

    /// ReadOnly (nominal: reading yields nothing) or WriteOnly (switches the answer to streamed framing); false for any
    /// other mode and for a message that is no longer valid.
    bool open(OpenMode mode) override;
    bool isSequential() const override { return true; }
    qint64 bytesToWrite() const override;
    /// Completes the body when the device was open for writing.
    void close() override;

protected:
    qint64 readData(char* data, qint64 length) override;
    qint64 writeData(const char* data, qint64 length) override;

private:
    void on_message_wroteChunk();
    void on_message_finished();

    Message* m_message;
    QList<qint64> m_pendingChunks; ///< Sizes, oldest first, of the writes not yet reported as sent.
};
