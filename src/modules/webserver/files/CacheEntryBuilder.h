#pragma once

#include <QFileInfo>
#include <QObject>
#include <QThreadPool>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "ETagCache.h"

class GuardedMapping;

/// Reads large files for their cache entries on a thread of low priority, so that other requests do not wait for it.
/// Files take turns, a slice each, so that a small one does not wait for a huge one; requests for the same file share
/// one reading. One for the process; on the worker's thread, as are the callbacks.
class CacheEntryBuilder : public QObject {
public:
    /// Called once, from the event loop; null when the file became shorter meanwhile.
    using Built = std::function<void(const ETagCacheEntry* entry)>;

    static CacheEntryBuilder& instance();
    ~CacheEntryBuilder() override;

    /// Builds the entry and puts it into the ETagCache.
    void build(const QFileInfo& file, const QDateTime& lastModified, const std::shared_ptr<GuardedMapping>& mapping,
        const Built& built);
    /// How many files have been read, for tests.
    int finishedCount() const { return m_finishedCount; }

private:
    struct Job;

    CacheEntryBuilder();
    void readSlice(const std::shared_ptr<Job>& job);
    void finish(const std::shared_ptr<Job>& job);

    std::vector<std::shared_ptr<Job>> m_jobs;
    std::atomic<bool> m_cancelled{ false };
    int m_finishedCount = 0;
    QThreadPool m_pool;
};
