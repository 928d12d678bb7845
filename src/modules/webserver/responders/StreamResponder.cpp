#include "StreamResponder.h"

#include <QIODevice>
#include <QSocketNotifier>
#include <QUrl>

#include <array>
#include <cerrno>
#include <cstring>

#include <unistd.h>

#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMStreamNode.h"
#include "LegacyPathHelper.h"
#include "Request.h"
#include "WebserverLog.h"

namespace {

constexpr int PrefixLength = 12; ///< Of "/api/stream/".
constexpr int ReadBytes = 32 * 1024;
constexpr qint64 InFlightBytes = 256 * 1024;

const CMStreamNode* streamAt(const QString& path)
{
    return dynamic_cast<const CMStreamNode*>(CMRoot()->tree()->node(LegacyPathHelper::resolve(path)));
}

} // namespace

StreamResponder::~StreamResponder()
{
    m_transfer.reset();
    m_readable.reset();
    if (m_pipe >= 0)
        ::close(m_pipe);
}

void StreamResponder::respond()
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "StreamResponder: request " << requestId() << " '" << request().fullUri() << "'");
    const bool head = request().isMethod("HEAD");
    if (!isGet() && !head)
        return respondInvalidMethod("GET, HEAD");
    identify(UriAlone);
    QString path;
    const CMStreamNode* stream = findStream(&path);
    // A path without a stream is judged like a node of the default permission: who may not read learns nothing of it.
    if (!canRespond(path, ApiRequestType::GetData, stream ? stream->permission() : ZarkPermission::Default))
        return;
    if (!stream)
        return respondWithError(CMError(CMError::NotFound, "There is no such stream."), SOUP_STATUS_NOT_FOUND);
    releaseBrake();
    request().setContentType(stream->mimeType());
    request().setNoCache();
    request().setStatus(SOUP_STATUS_OK, QString());
    if (!head)
        return start(*stream);
    request().setEncoding(Message::Streamed);
    Q_EMIT finished(requestId());
}

// The path as getData takes it stands in the URL as it is, or encoded once more as a whole.
const CMStreamNode* StreamResponder::findStream(QString* path) const
{
    const QByteArray encoded = request().path().mid(PrefixLength);
    *path = QString::fromUtf8(encoded);
    if (const CMStreamNode* stream = streamAt(*path))
        return stream;
    *path = QUrl::fromPercentEncoding(encoded);
    return streamAt(*path);
}

void StreamResponder::start(const CMStreamNode& stream)
{
    m_pipe = stream.openPipe();
    if (m_pipe < 0) {
        dbglog_error(webserverLog(), "Unable to open the stream " << stream.path().toEncoded());
        return respondWithError(
            CMError(CMError::Busy, "The stream cannot be opened now."), SOUP_STATUS_SERVICE_UNAVAILABLE);
    }
    if (PipeTransfer::isPossible(request())) {
        m_transfer = std::make_unique<PipeTransfer>(&request(), m_pipe, [this] {
            request().responseBodyComplete();
            Q_EMIT finished(requestId());
        });
        return;
    }
    m_readable = std::make_unique<QSocketNotifier>(m_pipe, QSocketNotifier::Read);
    connect(m_readable.get(), &QSocketNotifier::activated, this, [this] { readSome(); });
    connect(outputDevice(), &QIODevice::bytesWritten, this, [this] { goOn(); });
}

void StreamResponder::readSome()
{
    if (!outputDevice()->isOpen())
        return m_readable->setEnabled(false); // The client is gone.
    std::array<char, ReadBytes> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    const ssize_t length = ::read(m_pipe, buffer.data(), buffer.size());
    if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (length > 0) {
        outputDevice()->write(buffer.data(), length);
        m_readable->setEnabled(outputDevice()->bytesToWrite() + ReadBytes <= InFlightBytes);
        return;
    }
    if (length < 0)
        dbglog_error(webserverLog(), "A stream broke off: " << strerror(errno));
    m_readable->setEnabled(false);
    Q_EMIT finished(requestId());
}

void StreamResponder::goOn()
{
    if (outputDevice()->isOpen())
        m_readable->setEnabled(outputDevice()->bytesToWrite() + ReadBytes <= InFlightBytes);
}
