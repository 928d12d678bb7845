#include "CacheEntryBuilder.h"

#include <QCryptographicHash>

#include <algorithm>
#include <atomic>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "CacheEntry.h"
#include "GuardedMapping.h"
#include "WebserverLog.h"

namespace {

constexpr gsize SliceBytes = 4 * 1024 * 1024;
constexpr int NiceLevel = 10;

} // namespace

struct CacheEntryBuilder::Job {
    const QString path; ///< No QFileInfo: that caches what it looks up, and two threads would share it.
    const std::shared_ptr<GuardedMapping> mapping;
    std::atomic<bool> isAbandoned{ false };
    gsize position = 0;
    QCryptographicHash hash{ QCryptographicHash::Md5 };
    ETagCacheEntry entry;
    std::vector<Waiting<Built>> waiting; ///< On the worker's thread alone.

    Job(const QString& absolutePath, const std::shared_ptr<GuardedMapping>& mappedFile)
        : path(absolutePath), mapping(mappedFile)
    {
    }
};

CacheEntryBuilder& CacheEntryBuilder::instance()
{
    dbglog_scopedFunction(webserverLog());
    static CacheEntryBuilder builder;
    return builder;
}

CacheEntryBuilder::CacheEntryBuilder()
{
    m_reader.moveToThread(&m_thread);
}

CacheEntryBuilder::~CacheEntryBuilder()
{
    for (const auto& job : m_jobs)
        job->isAbandoned = true;
    m_thread.quit();
    m_thread.wait();
}

bool CacheEntryBuilder::build(const QString& absolutePath, const QDateTime& lastModified,
    const std::shared_ptr<GuardedMapping>& mapping, QObject* receiver, const Built& built)
{
    dbglog_scopedFunction(webserverLog());
    const auto same = std::find_if(m_jobs.begin(), m_jobs.end(), [&](const auto& job) {
        return job->entry.size == mapping->length() && job->entry.lastModified == lastModified
            && job->path == absolutePath;
    });
    if (same != m_jobs.end()) {
        append(&(*same)->waiting, receiver, built);
        return true;
    }
    if (m_jobs.size() >= MaximumJobs)
        return false;
    auto job = std::make_shared<Job>(absolutePath, mapping);
    job->entry.size = mapping->length();
    job->entry.lastModified = lastModified;
    append(&job->waiting, receiver, built);
    m_jobs.push_back(job);
    if (!m_thread.isRunning())
        m_thread.start();
    if (m_thread.isRunning())
        readLater(job);
    else
        finishLater(job); // The system has no thread to give.
    return true;
}

void CacheEntryBuilder::waitForRoom(QObject* receiver, const Retry& retry)
{
    dbglog_scopedFunction(webserverLog());
    append(&m_waitingForRoom, receiver, retry);
}

template <class Callback>
void CacheEntryBuilder::append(std::vector<Waiting<Callback>>* waiting, QObject* receiver, const Callback& callback)
{
    waiting->push_back({ receiver, callback });
    connect(receiver, &QObject::destroyed, this, &CacheEntryBuilder::dropGone, Qt::UniqueConnection);
}

void CacheEntryBuilder::dropGone()
{
    const auto isGone = [](const auto& waiting) {
        return !waiting.receiver;
    };
    const auto dropFrom = [&](auto* waiting) {
        waiting->erase(std::remove_if(waiting->begin(), waiting->end(), isGone), waiting->end());
        return waiting->empty();
    };
    dropFrom(&m_waitingForRoom);
    const auto firstAbandoned = std::remove_if(m_jobs.begin(), m_jobs.end(), [&](const auto& job) {
        job->isAbandoned = dropFrom(&job->waiting);
        return job->isAbandoned.load();
    });
    if (firstAbandoned == m_jobs.end())
        return;
    m_jobs.erase(firstAbandoned, m_jobs.end());
    QMetaObject::invokeMethod(this, &CacheEntryBuilder::serveWaiting, Qt::QueuedConnection);
}

void CacheEntryBuilder::serveWaiting()
{
    // Whoever finds no room after all comes to the end of the queue.
    for (size_t count = m_waitingForRoom.size(); count > 0 && m_jobs.size() < MaximumJobs; --count) {
        if (m_waitingForRoom.empty())
            return;
        const Waiting<Retry> first = m_waitingForRoom.front();
        m_waitingForRoom.erase(m_waitingForRoom.begin());
        if (first.receiver)
            first.callback();
    }
}

void CacheEntryBuilder::readLater(const std::shared_ptr<Job>& job)
{
    QMetaObject::invokeMethod(
        &m_reader, [this, job] { readSlice(job); }, Qt::QueuedConnection);
}

void CacheEntryBuilder::finishLater(const std::shared_ptr<Job>& job)
{
    QMetaObject::invokeMethod(
        this, [this, job] { finish(job); }, Qt::QueuedConnection);
}

void CacheEntryBuilder::readSlice(const std::shared_ptr<Job>& job)
{
    // On Linux a thread has a priority of its own.
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), NiceLevel);
    if (job->isAbandoned)
        return;
    const gsize length = job->mapping->length();
    const gsize slice = std::min(SliceBytes, length - job->position);
    job->hash.addData(job->mapping->data() + job->position, static_cast<int>(slice));
    job->position += slice;
    if (job->position < length && !job->mapping->isDamaged()) {
        readLater(job);
        return;
    }
    job->entry.etag = QString::fromLatin1(job->hash.result().toHex());
    job->entry.contentType = contentType(job->path, job->mapping->data(), length);
    finishLater(job);
}

void CacheEntryBuilder::finish(const std::shared_ptr<Job>& job)
{
    m_jobs.erase(std::remove(m_jobs.begin(), m_jobs.end(), job), m_jobs.end());
    ++m_finishedCount;
    const bool isIntact = !job->entry.etag.isEmpty() && !job->mapping->isDamaged();
    if (isIntact)
        ETagCache::instance().insert(job->path, job->entry);
    // A copy: somebody may ask for the next file from here.
    const auto waiting = job->waiting;
    for (const auto& one : waiting) {
        if (one.receiver)
            one.callback(isIntact ? &job->entry : nullptr);
    }
    serveWaiting();
}
