#include "StaticHandler.h"

#include <algorithm>

#include <libsoup/soup.h>

#include "CMValueItem.h"
#include "CacheEntry.h"
#include "FileReply.h"
#include "Message.h"
#include "WebserverLog.h"
#include "ZarkPaths.h"

namespace {

bool isPlain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' || c == '.'
        || c == '-' || c == '_' || c == '~';
}

// Parsing the URL is worth avoiding: most paths have nothing in them to decode.
QString decodedPath(const Message* message)
{
    const QByteArray path =
        QByteArray::fromRawData(message->data().path, static_cast<int>(strlen(message->data().path)));
    if (std::all_of(path.begin(), path.end(), isPlain))
        return QString::fromLatin1(path);
    return message->url().path(QUrl::FullyDecoded);
}

} // namespace

StaticHandler::StaticHandler(
    const QString& documentRoot, const QString& rootRedirect, const QString& urlPrefix, QObject* parent)
    : Handler(documentRoot, parent), m_documentRoot(documentRoot),
      m_rootPath(documentRoot.isEmpty() ? QString() : m_documentRoot.absolutePath()), m_rootRedirect(rootRedirect),
      m_urlPrefix(urlPrefix), m_webServerEnable(new CMValueItem(this, ZarkWebserverEnableExternalWebAccessPath()))
{
    dbglog_scopedFunction(webserverLog());
    if (documentRoot.isEmpty() || !m_documentRoot.exists())
        dbglog_warn(
            webserverLog(), "StaticHandler::StaticHandler: document root (" << documentRoot << ") doesn't exists");
    if (!connect(m_webServerEnable, &CMValueItem::changed, this, &StaticHandler::on_webServerEnable_changed))
        qFatal("connection");
}

void StaticHandler::on_webServerEnable_changed(const ZarkValue& value)
{
    m_webServerEnabled = value.bool_();
    dbglog_info(webserverLog(), "Webserver on http enabled:" << m_webServerEnabled);
}

bool StaticHandler::canRespond(Message* msg) const
{
    dbglog_scopedFunction(webserverLog());
    return msg->isFromLocalhost() || m_webServerEnabled || msg->isHttps();
}

void StaticHandler::handle(Message* message)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "StaticHandler: request: '" << message->fullUri() << "'");
    if (!canRespond(message)) {
        dbglog_info(webserverLog(), "REMOTE URL - DO NOT SERVE");
        message->setStatus(SOUP_STATUS_FORBIDDEN, QString());
        return;
    }
    QString path = decodedPath(message);
    if (!m_urlPrefix.isEmpty()) {
        if (!path.startsWith(m_urlPrefix)) {
            dbglog_error(webserverLog(), "Url: " << message->fullUri() << " does not start with " << m_urlPrefix);
            message->setStatus(SOUP_STATUS_INTERNAL_SERVER_ERROR, QString());
            return;
        }
        path.remove(0, m_urlPrefix.size());
    }
    // Without a root there is no local name either: the working directory is not meant.
    const QFileInfo file = m_rootPath.isEmpty() ? QFileInfo() : QFileInfo(m_rootPath + QLatin1Char('/') + path);
    serveFile(file, m_rootPath, m_rootRedirect, message, QString());
}

void StaticHandler::serveFile(const QFileInfo& file, const QString& rootPath, const QString& rootRedirect, Message* msg,
    const QString& contentType, const Answered& answered)
{
    dbglog_scopedFunction(webserverLog());
    FileReply(msg, rootPath, answered).serve(file, rootRedirect, contentType);
}

StaticHandler::ETagCacheEntry StaticHandler::getCacheEntry(const QFileInfo& file, GMappedFile* mapping)
{
    dbglog_scopedFunction(webserverLog());
    return cacheEntryOf(file, file.lastModified(), mapping);
}

QString StaticHandler::calculateETag(const QFileInfo& file, const char* data, size_t length)
{
    dbglog_scopedFunction(webserverLog());
    return fileETag(file, data, length);
}

QString StaticHandler::getMimeType(const QFileInfo& file, const char* data, size_t length)
{
    dbglog_scopedFunction(webserverLog());
    return fileMimeType(file, data, length);
}
