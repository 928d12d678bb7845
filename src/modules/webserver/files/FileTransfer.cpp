#include "FileTransfer.h"

#include <glib-unix.h>

#include <algorithm>
#include <cerrno>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "GuardedMapping.h"
#include "WebserverLog.h"

namespace {

/// A smaller body costs less in one piece with its head.
constexpr qint64 WorthwhileBytes = 128 * 1024;
/// Others have their turn after this much.
constexpr qint64 BytesATurn = 1024 * 1024;

GSocket* socketOf(const Message& message)
{
    return soup_client_context_get_gsocket(message.data().client);
}

// What is queued is the file's own pages: what the file has lost meanwhile would be zeros.
bool hasLost(int file, qint64 queued)
{
    struct stat status = {};
    return fstat(file, &status) != 0 || status.st_size < queued;
}

} // namespace

bool FileTransfer::isPossible(const Message& message, const GuardedMapping& mapping, qint64 length)
{
    dbglog_scopedFunction(webserverLog());
    return length >= WorthwhileBytes && mapping.descriptor() >= 0 && !message.isHttps() && socketOf(message);
}

void FileTransfer::begin(
    const Message& message, const std::shared_ptr<GuardedMapping>& mapping, qint64 offset, qint64 length)
{
    dbglog_scopedFunction(webserverLog());
    const auto destroy = [](gpointer transfer) {
        delete static_cast<FileTransfer*>(transfer);
    };
    auto* transfer = new FileTransfer(message, mapping, offset, length);
    g_object_set_data_full(G_OBJECT(message.data().message), "zark-file-transfer", transfer, destroy);
}

// With a length of its own and no piece of a body, the library writes the head and then waits for more.
FileTransfer::FileTransfer(
    const Message& message, const std::shared_ptr<GuardedMapping>& mapping, qint64 offset, qint64 length)
    : m_message(message), m_mapping(mapping), m_socket(g_socket_get_fd(socketOf(message))), m_offset(offset),
      m_end(offset + length), m_headWrittenId(g_signal_connect(message.data().message, "wrote-headers",
                                  G_CALLBACK(&FileTransfer::onHeadWritten), this))
{
    connect(&m_message, &Message::finished, this, &FileTransfer::stop);
    m_message.setContentLength(length);
}

void FileTransfer::stop()
{
    if (m_headWrittenId)
        g_signal_handler_disconnect(m_message.data().message, m_headWrittenId);
    m_headWrittenId = 0;
    if (m_writableSource)
        g_source_remove(m_writableSource);
    m_writableSource = 0;
}

void FileTransfer::onHeadWritten(SoupMessage*, gpointer self)
{
    static_cast<FileTransfer*>(self)->send();
}

gboolean FileTransfer::onWritable(gint, GIOCondition, gpointer self)
{
    static_cast<FileTransfer*>(self)->send();
    return G_SOURCE_CONTINUE;
}

void FileTransfer::send()
{
    const auto wanted = static_cast<size_t>(std::min(m_end - m_offset, BytesATurn));
    off64_t offset = m_offset;
    const ssize_t sent = sendfile64(m_socket, m_mapping->descriptor(), &offset, wanted);
    const bool isFull = sent < 0 && (errno == EAGAIN || errno == EINTR);
    m_offset = offset;
    const bool isShorter = sent == 0 || hasLost(m_mapping->descriptor(), m_offset);
    if (m_offset == m_end && !isShorter) {
        stop();
        m_message.responseBodyComplete();
        return;
    }
    if (isShorter || (sent < 0 && !isFull)) {
        if (isShorter)
            dbglog_warn(webserverLog(), "A file became shorter while it was sent: " << m_message.fullUri());
        stop();
        // The table of connections sees the end of this one, and ends the exchange.
        shutdown(m_socket, SHUT_RDWR);
        return;
    }
    if (!m_writableSource)
        m_writableSource = g_unix_fd_add(m_socket, G_IO_OUT, &FileTransfer::onWritable, this);
}
