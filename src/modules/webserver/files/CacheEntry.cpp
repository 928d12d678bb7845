#include "CacheEntry.h"

#include <QCryptographicHash>
#include <QFile>
#include <QUrl>

#include <algorithm>

#include "MimeTypes.h"
#include "WebserverLog.h"

namespace {

constexpr size_t HashSliceBytes = 1 << 30; ///< The hash counts with an int.

} // namespace

ETagCacheEntry buildCacheEntry(const QString& absolutePath, const QDateTime& lastModified, GMappedFile* mapping)
{
    dbglog_scopedFunction(webserverLog());
    const char* data = g_mapped_file_get_contents(mapping);
    const size_t length = g_mapped_file_get_length(mapping);
    const ETagCacheEntry entry{ length, lastModified, contentDigest(data, length),
        contentType(absolutePath, data, length) };
    ETagCache::instance().insert(absolutePath, entry);
    return entry;
}

QString contentDigest(const char* data, size_t length)
{
    dbglog_scopedFunction(webserverLog());
    QCryptographicHash hash(QCryptographicHash::Md5);
    for (size_t position = 0; position < length; position += HashSliceBytes)
        hash.addData(data + position, static_cast<int>(std::min(HashSliceBytes, length - position)));
    return QString::fromLatin1(hash.result().toHex());
}

QString contentType(const QString& absolutePath, const char* data, size_t length)
{
    dbglog_scopedFunction(webserverLog());
    gboolean uncertain = FALSE;
    char* type = g_content_type_guess(
        QFile::encodeName(absolutePath).constData(), reinterpret_cast<const guchar*>(data), length, &uncertain);
    dbglog_trace(webserverLog(), "getMimeType: contentType: " << type);
    char* mimeType = g_content_type_get_mime_type(type);
    const QString guess = QString::fromUtf8(mimeType);
    g_free(mimeType);
    g_free(type);
    if (!uncertain && guess != MimeTypes::Text::plain())
        return guess;
    dbglog_trace(webserverLog(),
        "getMimeType: g_content_type_guess uncertain (" << uncertain << ") trying our extension / mimetype map");
    // Escaped, since the map takes what follows "?" or "#" for no part of the name.
    const QByteArray uri = QUrl::toPercentEncoding(absolutePath, "/");
    const QString result = MimeTypes::URIToMimeType(QString::fromLatin1(uri), guess);
    dbglog_trace(webserverLog(), "getMimeType: got " << result);
    return result;
}
