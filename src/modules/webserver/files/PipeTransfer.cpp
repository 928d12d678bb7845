#include "PipeTransfer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "WebserverLog.h"

namespace {

constexpr int Hexadecimal = 16;

GSocket* socketOf(const Message& message)
{
    return soup_client_context_get_gsocket(message.data().client);
}

bool isLater(int error)
{
    return error == EAGAIN || error == EINTR;
}

// Not by what woke the event loop: a notifier that was just enabled may report what another's descriptor had.
bool isAtEnd(int pipe)
{
    pollfd request{ pipe, POLLIN, 0 };
    return poll(&request, 1, 0) == 1 && !(request.revents & POLLIN);
}

} // namespace

bool PipeTransfer::isPossible(const Message& message)
{
    return !message.isHttps() && socketOf(message);
}

PipeTransfer::PipeTransfer(Message* message, int pipe, const std::function<void()>& done)
    : m_message(message), m_done(done), m_pipe(pipe), m_socket(g_socket_get_fd(socketOf(*message))),
      m_isChunked(soup_message_get_http_version(message->data().message) != SOUP_HTTP_1_0),
      m_readable(pipe, QSocketNotifier::Read), m_writable(m_socket, QSocketNotifier::Write),
      m_headWrittenId(
          g_signal_connect(message->data().message, "wrote-headers", G_CALLBACK(&PipeTransfer::onHeadWritten), this))
{
    m_readable.setEnabled(false);
    m_writable.setEnabled(false);
    connect(&m_readable, &QSocketNotifier::activated, this, [this] { beginChunk(); });
    connect(&m_writable, &QSocketNotifier::activated, this, [this] { advance(); });
    connect(message, &Message::finished, this, [this] { stop(); });
    message->setEncoding(Message::Streamed);
    message->unpause();
}

void PipeTransfer::stop()
{
    m_readable.setEnabled(false);
    m_writable.setEnabled(false);
    if (m_headWrittenId)
        g_signal_handler_disconnect(m_message->data().message, m_headWrittenId);
    m_headWrittenId = 0;
}

void PipeTransfer::onHeadWritten(SoupMessage*, gpointer self)
{
    static_cast<PipeTransfer*>(self)->wait(false);
}

void PipeTransfer::wait(bool full)
{
    m_readable.setEnabled(!full);
    m_writable.setEnabled(full);
}

void PipeTransfer::beginChunk()
{
    int bytes = 0;
    if (ioctl(m_pipe, FIONREAD, &bytes) != 0) {
        dbglog_error(webserverLog(), "A stream broke off: " << strerror(errno));
        return end();
    }
    if (bytes == 0) {
        if (isAtEnd(m_pipe))
            end();
        return;
    }
    m_left = static_cast<size_t>(bytes);
    if (m_isChunked)
        m_frame = QByteArray::number(bytes, Hexadecimal) + "\r\n";
    advance();
}

// The frame and the data go out together, and whatever the socket has no room for waits where it is.
void PipeTransfer::advance()
{
    const bool hadData = m_left > 0;
    if (!sendFrame() || !moveData())
        return;
    if (hadData && m_isChunked) {
        m_frame = QByteArrayLiteral("\r\n");
        if (!sendFrame())
            return;
    }
    wait(false);
}

bool PipeTransfer::sendFrame()
{
    if (m_frame.isEmpty())
        return true;
    const int flags = MSG_NOSIGNAL | MSG_DONTWAIT | (m_left > 0 ? MSG_MORE : 0);
    const ssize_t sent = ::send(m_socket, m_frame.constData(), static_cast<size_t>(m_frame.size()), flags);
    if (sent < 0 && !isLater(errno)) {
        end();
        return false;
    }
    m_frame.remove(0, static_cast<int>(std::max<ssize_t>(sent, 0)));
    if (!m_frame.isEmpty())
        wait(true);
    return m_frame.isEmpty();
}

bool PipeTransfer::moveData()
{
    while (m_left > 0) {
        const unsigned int flags = SPLICE_F_MOVE | SPLICE_F_NONBLOCK | (m_isChunked ? SPLICE_F_MORE : 0U);
        const ssize_t moved = splice(m_pipe, nullptr, m_socket, nullptr, m_left, flags);
        if (moved <= 0) {
            if (moved < 0 && isLater(errno))
                wait(true);
            else
                end();
            return false;
        }
        m_left -= static_cast<size_t>(moved);
        m_message->data().message->response_body->length += moved; // For whoever counts: none of it passes there.
    }
    return true;
}

void PipeTransfer::end()
{
    stop();
    // In the middle of a chunk there is no way on: the table of connections sees the end of this one.
    if (m_left > 0 || !m_frame.isEmpty())
        shutdown(m_socket, SHUT_RDWR);
    m_done();
}
