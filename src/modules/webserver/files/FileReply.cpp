#include "FileReply.h"

#include <QFile>

#include "CacheEntry.h"
#include "CacheEntryBuilder.h"
#include "FileTransfer.h"
#include "GuardedMapping.h"
#include "LocalFile.h"
#include "Message.h"
#include "MimeTypes.h"
#include "OpenFiles.h"
#include "WebserverLog.h"

namespace {

/// Reading this much takes about as long as a few requests do; more is read on another thread.
constexpr gsize ReadAtOnceBytes = 256 * 1024;

// A search in the text and no parse of entity tags: clients send the tag with quotes or without.
bool matches(const char* list, const QString& etag)
{
    return strcmp(list, "*") == 0 || strstr(list, etag.toLatin1().constData());
}

void release(gpointer sending)
{
    delete static_cast<GuardedMapping::Sending*>(sending);
}

} // namespace

void FileReply::serve(const QFileInfo& file, const QString& rootRedirect, const QString& contentType)
{
    dbglog_scopedFunction(webserverLog());
    if (serveFile(file, rootRedirect, contentType) == Answered)
        finish();
}

void FileReply::finish()
{
    if (m_paused)
        m_message->unpause();
    if (m_answered)
        m_answered();
}

FileReply::Outcome FileReply::serveFile(const QFileInfo& file, const QString& rootRedirect, const QString& contentType)
{
    m_file = file;
    m_contentType = contentType;
    m_message->setEncoding(Message::PlainContentLength);
    const QByteArray name = QFile::encodeName(file.filePath());
    const OpenFiles::File* open = OpenFiles::instance().find(name);
    if (open && open->canonicalPath.startsWith(m_rootPath))
        return serveMapping(open->lastModified, Mapping(open->mapping));
    const LocalFile local(name);
    if (local.kind() == LocalFile::Missing || !QFile::decodeName(local.canonicalPath()).startsWith(m_rootPath))
        return notFound(local);
    if (!local.isReadable())
        return forbidden();
    if (local.kind() == LocalFile::Directory)
        return serveDirectory(file, local, rootRedirect);
    return serveRegular(local);
}

FileReply::Outcome FileReply::serveDirectory(
    const QFileInfo& directory, const LocalFile& local, const QString& rootRedirect)
{
    dbglog_info(webserverLog(), "StaticHandler::serveFile: url is dir, serving index file:" << m_message->fullUri());
    if (!m_message->url().path(QUrl::FullyDecoded).endsWith(QLatin1Char('/'))) {
        dbglog_debug(webserverLog(),
            "StaticHandler::serveFile: url " << m_message->fullUri() << " is dir without /, redirecting...");
        return redirect(QStringLiteral("/"));
    }
    if (!rootRedirect.isEmpty() && QFile::decodeName(local.canonicalPath()) == m_rootPath)
        return redirect(rootRedirect);
    const QFileInfo index(directory.absoluteFilePath() + QStringLiteral("/index.html"));
    if (index.exists())
        return serveFile(index, QString(), QString());
    return redirect(QStringLiteral("index.fcgi"));
}

FileReply::Outcome FileReply::serveRegular(const LocalFile& local)
{
    if (local.kind() == LocalFile::Special)
        return failed(QStringLiteral("Not a regular file"));
    if (local.descriptor() < 0)
        return failed(QString::fromUtf8(g_strerror(local.error())));
    GError* error = nullptr;
    const Mapping mapping = GuardedMapping::map(local.descriptor(), &error);
    if (!mapping) {
        const QString reason = QString::fromUtf8(error->message);
        g_error_free(error);
        return failed(reason);
    }
    OpenFiles::instance().insert(QFile::encodeName(m_file.filePath()), local, mapping);
    return serveMapping(local.lastModified(), mapping);
}

FileReply::Outcome FileReply::serveMapping(const QDateTime& lastModified, const Mapping& mapping)
{
    const QString path = m_file.absoluteFilePath();
    if (const ETagCacheEntry* entry = ETagCache::instance().find(path, mapping->length(), lastModified))
        return serveMapped(*entry, mapping);
    if (mapping->length() > ReadAtOnceBytes)
        return serveLater(lastModified, mapping);
    const ETagCacheEntry entry = buildCacheEntry(path, lastModified, mapping->file());
    return mapping->isDamaged() ? serveChanged() : serveMapped(entry, mapping);
}

// Without a mapping while there is no room: any number of clients may wait.
FileReply::Outcome FileReply::serveLater(const QDateTime& lastModified, const Mapping& mapping)
{
    m_message->pause();
    m_paused = true;
    const auto built = [reply = *this, mapping](const ETagCacheEntry* entry) mutable {
        reply.goOn([&](FileReply* self) { return self->serveRead(entry, mapping); });
    };
    const auto retry = [reply = *this]() mutable {
        reply.goOn([](FileReply* self) { return self->serveFile(self->m_file, QString(), self->m_contentType); });
    };
    CacheEntryBuilder& builder = CacheEntryBuilder::instance();
    if (!builder.build(m_file.absoluteFilePath(), lastModified, mapping, m_message, built))
        builder.waitForRoom(m_message, retry);
    return Waiting;
}

void FileReply::goOn(const std::function<Outcome(FileReply*)>& serve)
{
    if (m_message->isValid() && serve(this) == Answered)
        finish();
}

// Any number of requests wait for one reading, more than one mapping can be sent to: the others get another.
FileReply::Outcome FileReply::serveRead(const ETagCacheEntry* entry, const Mapping& mapping)
{
    if (!entry)
        return serveChanged();
    return mapping->canBeSent() ? serveMapped(*entry, mapping) : serveFile(m_file, QString(), m_contentType);
}

// Once: a file that changes all the time must not be read for ever.
FileReply::Outcome FileReply::serveChanged()
{
    if (m_changedBefore)
        return failed(QStringLiteral("The file could not be read to its end"));
    m_changedBefore = true;
    return serveFile(m_file, QString(), m_contentType);
}

FileReply::Outcome FileReply::serveMapped(const ETagCacheEntry& entry, const Mapping& mapping)
{
    const int failure = failedCondition(entry.etag);
    if (failure == SOUP_STATUS_NOT_MODIFIED)
        return notModified();
    if (failure != 0)
        return empty(failure);
    m_message->setContentType(m_contentType.isEmpty() ? entry.contentType : m_contentType);
    if (m_message->isHttps())
        m_message->setHeader(
            QByteArrayLiteral("Content-Security-Policy"), QByteArrayLiteral("upgrade-insecure-requests"));
    m_message->setStatus(SOUP_STATUS_OK, QString());
    if (isMethod("GET"))
        return serveGet(entry.etag, mapping);
    if (isMethod("HEAD"))
        return serveHead(mapping);
    return isMethod("POST") ? serveAsGet() : methodNotAllowed();
}

// 0 when the client wants an answer with a body (RFC 9110, section 13.1).
int FileReply::failedCondition(const QString& etag) const
{
    const char* ifNoneMatch = field("If-None-Match");
    if (ifNoneMatch && (isMethod("GET") || isMethod("HEAD")) && matches(ifNoneMatch, etag))
        return SOUP_STATUS_NOT_MODIFIED;
    const char* ifMatch = field("If-Match");
    return ifMatch && *ifMatch && !matches(ifMatch, etag) ? SOUP_STATUS_PRECONDITION_FAILED : 0;
}

FileReply::Outcome FileReply::serveGet(const QString& etag, const Mapping& mapping)
{
    dbglog_debug(webserverLog(), "Serving GET for " << m_message->fullUri());
    const auto length = static_cast<qint64>(mapping->length());
    const RangeRequest request = wantedRange(etag, length);
    if (request.kind == RangeRequest::Unsatisfiable)
        return unsatisfiable();
    ByteRange body{ 0, length - 1 };
    if (request.kind == RangeRequest::Single) {
        body = request.range;
        m_message->setStatus(SOUP_STATUS_PARTIAL_CONTENT, QString());
        soup_message_headers_set_content_range(responseHeaders(), body.first, body.last, length);
    }
    m_message->setHeader(QByteArrayLiteral("ETag"), etag.toLatin1());
    if (body.length() > 0)
        appendBody(mapping, body.first, body.length());
    return Answered;
}

// All of the file for a client that asks for several ranges, or for a part of another version.
RangeRequest FileReply::wantedRange(const QString& etag, qint64 length) const
{
    const RangeRequest request = length > 0 ? readRange(requestHeaders(), length) : RangeRequest();
    if (request.kind == RangeRequest::Whole)
        return request;
    dbglog_trace(webserverLog(), "got " << request.count << " ranges in the request");
    const char* ifRange = field("If-Range");
    if (ifRange && *ifRange && etag != QLatin1String(ifRange))
        return {};
    if (request.kind == RangeRequest::Several) {
        dbglog_warn(webserverLog(), "Ignoring Range: header with multiple ranges: " << field("Range"));
        return {};
    }
    dbglog_trace(webserverLog(), "got range request for " << m_message->fullUri() << " entityLength=" << length);
    if (request.kind == RangeRequest::Unsatisfiable)
        dbglog_debug(webserverLog(), "Unsatisfiable range: " << field("Range") << " length: " << length);
    return request;
}

FileReply::Outcome FileReply::serveHead(const Mapping& mapping)
{
    dbglog_debug(webserverLog(), "Serving HEAD for " << m_message->fullUri());
    m_message->setHeader(
        QByteArrayLiteral("Content-Length"), QByteArray::number(static_cast<quint64>(mapping->length())));
    return Answered;
}

FileReply::Outcome FileReply::serveAsGet()
{
    dbglog_debug(webserverLog(), "Serving POST for " << m_message->fullUri());
    m_message->data().message->method = SOUP_METHOD_GET;
    return serveFile(m_file, QString(), QString());
}

// By the kernel, or as a view of the mapping, which lives until the library has sent it.
void FileReply::appendBody(const Mapping& mapping, qint64 offset, qint64 length)
{
    if (FileTransfer::isPossible(*m_message, *mapping, length))
        return FileTransfer::begin(*m_message, mapping, offset, length);
    GSocket* socket = soup_client_context_get_gsocket(m_message->data().client);
    auto* sending = new GuardedMapping::Sending(mapping, socket ? g_socket_get_fd(socket) : -1);
    SoupBuffer* buffer =
        soup_buffer_new_with_owner(mapping->data() + offset, static_cast<gsize>(length), sending, release);
    soup_message_body_append_buffer(m_message->data().message->response_body, buffer);
    soup_buffer_free(buffer);
}

FileReply::Outcome FileReply::notFound(const LocalFile& local)
{
    dbglog_warn(webserverLog(),
        "StaticHandler::handle: request for "
            << (local.canonicalPath().isEmpty() ? "non-existent" : "out-of-document-root")
            << " file url: " << m_message->fullUri() << " local file: " << m_file.filePath());
    return text(
        SOUP_STATUS_NOT_FOUND, QStringLiteral("The requested url '%1' was not found.").arg(m_message->fullUri()));
}

FileReply::Outcome FileReply::forbidden()
{
    dbglog_warn(webserverLog(), "StaticHandler::handle: request for forbidden file:" << m_file.filePath());
    return text(
        SOUP_STATUS_FORBIDDEN, QStringLiteral("You don't have permission to access '%1'.").arg(m_message->fullUri()));
}

FileReply::Outcome FileReply::failed(const QString& reason)
{
    dbglog_error(webserverLog(), "StaticHandler::handle: Error openning file: " << m_file.filePath());
    return text(SOUP_STATUS_INTERNAL_SERVER_ERROR, QStringLiteral("Error opening file: %1").arg(reason));
}

// Scheme and host as the client wrote them: not every name that people give a device is a host name to QUrl.
FileReply::Outcome FileReply::redirect(const QString& appended)
{
    ZarkUrl url = m_message->url();
    url.setPath(url.path(QUrl::FullyEncoded) + appended, QUrl::TolerantMode);
    const QByteArray uri = m_message->fullUri().toUtf8();
    const int pathStart = uri.indexOf('/', uri.indexOf("//") + 2);
    m_message->setStatus(SOUP_STATUS_MOVED_PERMANENTLY, QString());
    m_message->setHeader(
        QByteArrayLiteral("Location"), uri.left(pathStart) + url.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority));
    m_message->setNoCache();
    return Answered;
}

// The words of a missing file, on purpose.
FileReply::Outcome FileReply::unsatisfiable()
{
    return text(SOUP_STATUS_REQUESTED_RANGE_NOT_SATISFIABLE,
        QStringLiteral("The requested url '%1' was not found.").arg(m_message->fullUri()));
}

// The length would be that of the file (RFC 9110, section 8.6), and not of the answer, as the library has it.
FileReply::Outcome FileReply::notModified()
{
    soup_message_headers_set_encoding(responseHeaders(), SOUP_ENCODING_NONE);
    return empty(SOUP_STATUS_NOT_MODIFIED);
}

FileReply::Outcome FileReply::methodNotAllowed()
{
    dbglog_debug(
        webserverLog(), "Unsupported method " << m_message->data().message->method << " for " << m_message->fullUri());
    m_message->setHeader(QByteArrayLiteral("Allow"), QByteArrayLiteral("GET, HEAD, POST"));
    return empty(SOUP_STATUS_METHOD_NOT_ALLOWED);
}

FileReply::Outcome FileReply::text(int status, const QString& body)
{
    m_message->setStatus(status, QString());
    m_message->setResponseBody(body, MimeTypes::Text::plain());
    return Answered;
}

FileReply::Outcome FileReply::empty(int status)
{
    m_message->setStatus(status, QString());
    return Answered;
}

// All fields of that name, joined by ", "; null when there is none.
const char* FileReply::field(const char* name) const
{
    return soup_message_headers_get_list(requestHeaders(), name);
}

SoupMessageHeaders* FileReply::requestHeaders() const
{
    return m_message->data().message->request_headers;
}

SoupMessageHeaders* FileReply::responseHeaders() const
{
    return m_message->data().message->response_headers;
}

bool FileReply::isMethod(const char* method) const
{
    return strcmp(m_message->data().message->method, method) == 0;
}
