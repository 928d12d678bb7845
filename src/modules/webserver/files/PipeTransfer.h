#pragma once

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>

#include <functional>

#include "Message.h"

/// The body of an answer, moved from a pipe to the client's socket by the kernel: splice(2) copies nothing. The library
/// writes the head, frames nothing, and ends the body; in between it waits for a body that never passes through it.
///
/// What the pipe holds at a time is one chunk (RFC 9112, section 7.1), and none of it is held anywhere else: while the
/// client's socket is full, the pipe's writer waits. Stops when the exchange ends. On the server's thread.
class PipeTransfer : public QObject {
public:
    /// Whether the body can go this way: over plain HTTP.
    static bool isPossible(const Message& message);
    /// Begins when the head has been written, which this resumes the exchange for. `pipe` is a non-blocking reading
    /// end, and stays the caller's, as `message` does; both outlive this object. `done` is called once, at the pipe's
    /// end or when nothing more can be sent; not after the exchange has ended.
    PipeTransfer(Message* message, int pipe, const std::function<void()>& done);
    ~PipeTransfer() override { stop(); }

private:
    static void onHeadWritten(SoupMessage* message, gpointer self);
    void beginChunk();
    void advance();
    bool sendFrame();
    bool moveData();
    void wait(bool full);
    void end();
    void stop();

    Message* m_message;
    std::function<void()> m_done;
    int m_pipe;
    int m_socket;
    bool m_isChunked;
    QByteArray m_frame; ///< Of the chunk's size line, or of its end, what is still to be sent.
    size_t m_left = 0; ///< Bytes of the chunk.
    QSocketNotifier m_readable; ///< Of the pipe; one of the two is on.
    QSocketNotifier m_writable; ///< Of the socket.
    gulong m_headWrittenId;
};
