#include "CacheEntryBuilder.h"

#include <QCryptographicHash>

#include <algorithm>

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
    QFileInfo file;
    std::shared_ptr<GuardedMapping> mapping;
    gsize position = 0;
    QCryptographicHash hash{ QCryptographicHash::Md5 };
    ETagCacheEntry entry;
    std::vector<Built> waiting; ///< On the worker's thread alone.
};

CacheEntryBuilder& CacheEntryBuilder::instance()
{
    dbglog_scopedFunction(webserverLog());
    static CacheEntryBuilder builder;
    return builder;
}

CacheEntryBuilder::CacheEntryBuilder()
{
    m_pool.setMaxThreadCount(1);
}

CacheEntryBuilder::~CacheEntryBuilder()
{
    m_cancelled = true;
    m_pool.clear();
    m_pool.waitForDone();
}

void CacheEntryBuilder::build(const QFileInfo& file, const QDateTime& lastModified,
    const std::shared_ptr<GuardedMapping>& mapping, const Built& built)
{
    dbglog_scopedFunction(webserverLog());
    const auto same = std::find_if(m_jobs.begin(), m_jobs.end(), [&](const auto& job) {
        return job->entry.size == mapping->length() && job->entry.lastModified == lastModified
            && job->file.absoluteFilePath() == file.absoluteFilePath();
    });
    if (same != m_jobs.end()) {
        (*same)->waiting.push_back(built);
        return;
    }
    auto job = std::make_shared<Job>();
    // A copy of its own: the class caches what it looks up, also on this thread.
    job->file.setFile(file.filePath());
    job->mapping = mapping;
    job->entry.size = mapping->length();
    job->entry.lastModified = lastModified;
    job->waiting.push_back(built);
    m_jobs.push_back(job);
    m_pool.start([this, job] { readSlice(job); });
}

void CacheEntryBuilder::readSlice(const std::shared_ptr<Job>& job)
{
    // On Linux a thread has a priority of its own.
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), NiceLevel);
    const gsize length = job->mapping->length();
    const gsize slice = std::min(SliceBytes, length - job->position);
    job->hash.addData(job->mapping->data() + job->position, static_cast<int>(slice));
    job->position += slice;
    if (m_cancelled)
        return;
    if (job->position < length && !job->mapping->isDamaged()) {
        m_pool.start([this, job] { readSlice(job); });
        return;
    }
    job->entry.etag = QString::fromLatin1(job->hash.result().toHex());
    job->entry.contentType = fileMimeType(job->file, job->mapping->data(), length);
    QMetaObject::invokeMethod(
        this, [this, job] { finish(job); }, Qt::QueuedConnection);
}

void CacheEntryBuilder::finish(const std::shared_ptr<Job>& job)
{
    m_jobs.erase(std::find(m_jobs.begin(), m_jobs.end(), job));
    ++m_finishedCount;
    const bool intact = !job->mapping->isDamaged();
    if (intact)
        ETagCache::instance().insert(job->file.absoluteFilePath(), job->entry);
    for (const Built& built : job->waiting)
        built(intact ? &job->entry : nullptr);
}
