#pragma once

#include <QObject>
#include <QPointer>
#include <QThread>

#include <functional>
#include <memory>
#include <vector>

#include "ETagCache.h"

class GuardedMapping;

/// Reads large files for their cache entries on a thread of low priority, so that other requests do not wait for it.
/// Files take turns, a slice each, so that a small one does not wait for a huge one; requests for the same file share
/// one reading, which ends when nobody waits for it any more. One for the process; on the worker's thread, as are the
/// callbacks, which are dropped with their receivers.
class CacheEntryBuilder : public QObject {
public:
    /// Called once, from the event loop; null when the file became shorter meanwhile, or there is no
    /// thread to be had.
    using Built = std::function<void(const ETagCacheEntry* entry)>;
    using Retry = std::function<void()>;

    static constexpr int MaximumJobs = 16;

    static CacheEntryBuilder& instance();
    ~CacheEntryBuilder() override;

    /// Builds the entry and puts it into the ETagCache. False, and nothing happens, when as many files as may be are
    /// being read: then waitForRoom(), without a mapping.
    bool build(const QString& absolutePath, const QDateTime& lastModified,
        const std::shared_ptr<GuardedMapping>& mapping, QObject* receiver, const Built& built);
    /// Calls `retry` once there is room, in the order of these calls.
    void waitForRoom(QObject* receiver, const Retry& retry);
    /// How many files have been read to their end, for tests.
    int finishedCount() const { return m_finishedCount; }

private:
    struct Job;
    template <class Callback> struct Waiting {
        QPointer<QObject> receiver;
        Callback callback;
    };

    CacheEntryBuilder();
    template <class Callback>
    void append(std::vector<Waiting<Callback>>* waiting, QObject* receiver, const Callback& callback);
    void dropGone();
    void serveWaiting();
    void readLater(const std::shared_ptr<Job>& job);
    void finishLater(const std::shared_ptr<Job>& job);
    void readSlice(const std::shared_ptr<Job>& job);
    void finish(const std::shared_ptr<Job>& job);

    std::vector<std::shared_ptr<Job>> m_jobs;
    std::vector<Waiting<Retry>> m_waitingForRoom;
    int m_finishedCount = 0;
    QThread m_thread; ///< Not a pool's: a pool that cannot start its thread does not tell, and its jobs wait for ever.
    QObject m_reader; ///< Lives there.
};
