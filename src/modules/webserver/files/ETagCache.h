#pragma once

#include <QCache>
#include <QDateTime>
#include <QString>

/// What is known of a file from having read all of it once.
struct ETagCacheEntry {
    quint64 size = 0;
    QDateTime lastModified;
    QString etag; ///< A bare hexadecimal digest, without quotes.
    QString contentType;
};

/// The entries of the 200 files that were asked for last, by absolute path. One for the process; on the worker's thread
/// alone.
class ETagCache {
public:
    static ETagCache& instance();

    /// The entry, which is the most recent one from now on. Null when there is none for this size and time; the pointer
    /// is good until the next insert().
    const ETagCacheEntry* find(const QString& path, quint64 size, const QDateTime& lastModified);
    /// In place of an earlier entry for the path, or of the one that was not asked for longest.
    void insert(const QString& path, const ETagCacheEntry& entry);

private:
    ETagCache() : m_entries(Capacity) { }

    static constexpr int Capacity = 200;
    QCache<QString, ETagCacheEntry> m_entries;
};
