#include "ETagCache.h"

#include "WebserverLog.h"

ETagCache& ETagCache::instance()
{
    dbglog_scopedFunction(webserverLog());
    static ETagCache cache;
    return cache;
}

const ETagCacheEntry* ETagCache::find(const QString& path, quint64 size, const QDateTime& lastModified)
{
    dbglog_scopedFunction(webserverLog());
    const ETagCacheEntry* entry = m_entries.object(path);
    if (!entry) {
        dbglog_debug(webserverLog(), "StaticHandler::getCacheEntry: not found cache entry for " << path);
        return nullptr;
    }
    if (entry->size != size || entry->lastModified != lastModified) {
        dbglog_debug(webserverLog(), "StaticHandler::getCacheEntry: outdated cache entry for " << path);
        return nullptr;
    }
    dbglog_debug(webserverLog(), "StaticHandler::getCacheEntry: matching cache entry for " << path);
    return entry;
}

void ETagCache::insert(const QString& path, const ETagCacheEntry& entry)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(),
        "StaticHandler::getCacheEntry: creating new cache entry for "
            << path << " autodetected content-type: " << entry.contentType);
    m_entries.insert(path, new ETagCacheEntry(entry));
}
