#include "OpenFiles.h"

#include <QFile>

#include "FileVersion.h"
#include "GuardedMapping.h"
#include "LocalFile.h"
#include "WebserverLog.h"

namespace {

constexpr int MaximumFiles = 64;
constexpr qint64 Lifetime = G_USEC_PER_SEC;

} // namespace

OpenFiles& OpenFiles::instance()
{
    dbglog_scopedFunction(webserverLog());
    static OpenFiles files;
    return files;
}

const OpenFiles::File* OpenFiles::find(const QByteArray& name)
{
    dbglog_scopedFunction(webserverLog());
    const auto found = m_entries.constFind(name);
    if (found == m_entries.constEnd())
        return nullptr;
    struct stat status = {};
    const bool isCurrent = g_get_monotonic_time() - found->since < Lifetime && stat(name.constData(), &status) == 0
        && isSameVersion(status, found->status) && !found->file.mapping->isDamaged()
        && found->file.mapping->canBeSent();
    return isCurrent ? &found->file : nullptr;
}

void OpenFiles::insert(const QByteArray& name, const LocalFile& local, const std::shared_ptr<GuardedMapping>& mapping)
{
    dbglog_scopedFunction(webserverLog());
    if (m_entries.size() >= MaximumFiles && !m_entries.contains(name))
        return;
    if (m_entries.isEmpty()) {
        const auto drop = [](gpointer files) -> gboolean {
            return static_cast<OpenFiles*>(files)->dropExpired();
        };
        g_timeout_add_seconds(1, drop, this);
    }
    m_entries.insert(name,
        { { QFile::decodeName(local.canonicalPath()), local.lastModified(), mapping }, local.status(),
            g_get_monotonic_time() });
}

bool OpenFiles::dropExpired()
{
    const qint64 oldest = g_get_monotonic_time() - Lifetime;
    for (auto entry = m_entries.begin(); entry != m_entries.end();)
        entry = entry->since < oldest ? m_entries.erase(entry) : std::next(entry);
    return !m_entries.isEmpty();
}
