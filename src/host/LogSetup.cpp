#include "LogSetup.h"

#include "HostOptions.h"
#include "dbglog.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

/// systemd names the journal's socket by device and inode; standard error may have been redirected since.
bool isStandardErrorTheJournal()
{
    struct stat status = {};
    if (fstat(STDERR_FILENO, &status) != 0)
        return false;
    const QByteArray id =
        QByteArray::number(qulonglong(status.st_dev)) + ':' + QByteArray::number(qulonglong(status.st_ino));
    return qgetenv("JOURNAL_STREAM") == id;
}

} // namespace

LogSetup::LogSetup(const HostOptions& options) : m_file(options.logConfig), m_level(options.logLevel) { }

bool LogSetup::apply(QString* error) const
{
    if (!m_file.isEmpty())
        return DbgLogger::configureFromFile(m_file, error);
    if (DbgLogger::configure(m_level, isStandardErrorTheJournal()))
        return true;
    *error = QStringLiteral("--log-level %1: no such level").arg(m_level);
    return false;
}
