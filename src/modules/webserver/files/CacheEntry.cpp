#include "CacheEntry.h"

#include <QCryptographicHash>
#include <QFile>

#include <algorithm>

#include "MimeTypes.h"
#include "WebserverLog.h"

namespace {

constexpr size_t HashSliceBytes = 1 << 30; ///< The hash counts with an int.

} // namespace

ETagCacheEntry cacheEntryOf(const QFileInfo& file, const QDateTime& lastModified, GMappedFile* mapping)
{
    dbglog_scopedFunction(webserverLog());
    ETagCache& cache = ETagCache::instance();
    const QString path = file.absoluteFilePath();
    const size_t length = g_mapped_file_get_length(mapping);
    if (const ETagCacheEntry* entry = cache.find(path, length, lastModified))
        return *entry;
    const char* data = g_mapped_file_get_contents(mapping);
    const ETagCacheEntry entry{ length, lastModified, fileETag(file, data, length), fileMimeType(file, data, length) };
    cache.insert(path, entry);
    return entry;
}

QString fileETag(const QFileInfo& file, const char* data, size_t length)
{
    dbglog_scopedFunction(webserverLog());
    if (file.isDir())
        return {};
    QCryptographicHash hash(QCryptographicHash::Md5);
    for (size_t position = 0; position < length; position += HashSliceBytes)
        hash.addData(data + position, static_cast<int>(std::min(HashSliceBytes, length - position)));
    return QString::fromLatin1(hash.result().toHex());
}

QString fileMimeType(const QFileInfo& file, const char* data, size_t length)
{
    dbglog_scopedFunction(webserverLog());
    const QString path = file.absoluteFilePath();
    gboolean uncertain = FALSE;
    char* type = g_content_type_guess(
        QFile::encodeName(path).constData(), reinterpret_cast<const guchar*>(data), length, &uncertain);
    dbglog_trace(webserverLog(), "getMimeType: contentType: " << type);
    char* mimeType = g_content_type_get_mime_type(type);
    const QString guess = QString::fromUtf8(mimeType);
    g_free(mimeType);
    g_free(type);
    if (!uncertain && guess != MimeTypes::Text::plain())
        return guess;
    dbglog_trace(webserverLog(),
        "getMimeType: g_content_type_guess uncertain (" << uncertain << ") trying our extension / mimetype map");
    const QString result = MimeTypes::URIToMimeType(path, guess);
    dbglog_trace(webserverLog(), "getMimeType: got " << result);
    return result;
}
