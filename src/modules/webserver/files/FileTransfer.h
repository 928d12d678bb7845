#pragma once

#include <QObject>

#include <libsoup/soup.h>

#include <memory>

#include "Message.h"

class GuardedMapping;

/// The body of an answer, moved from a file to the client's socket by the kernel: sendfile(2) copies each byte once,
/// the library would copy it twice. The library writes the head and finishes the exchange; in between it waits for a
/// body that never passes through it. Stops when the exchange ends, and goes with the library's message: whoever
/// answered may have gone before.
///
/// A file that has become shorter than the head promised shuts the socket down. On the server's thread.
class FileTransfer : public QObject {
public:
    /// Whether this body is worth it, and can go this way: a large one, over plain HTTP.
    static bool isPossible(const Message& message, const GuardedMapping& mapping, qint64 length);
    /// `length` bytes of the file from `offset` on become the body of `message`, whose head is still to be written.
    static void begin(
        const Message& message, const std::shared_ptr<GuardedMapping>& mapping, qint64 offset, qint64 length);

private:
    FileTransfer(const Message& message, const std::shared_ptr<GuardedMapping>& mapping, qint64 offset, qint64 length);

    static void onHeadWritten(SoupMessage* message, gpointer self);
    static gboolean onWritable(gint socket, GIOCondition condition, gpointer self);
    void send();
    void stop();

    Message m_message; ///< A view of its own.
    std::shared_ptr<GuardedMapping> m_mapping;
    int m_socket;
    qint64 m_offset;
    qint64 m_end;
    gulong m_headWrittenId;
    guint m_writableSource = 0; ///< From the first write that finds the socket full on.
};
