#include "LocalFile.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace {

LocalFile::Kind kindOf(const struct stat& status)
{
    if (S_ISREG(status.st_mode))
        return LocalFile::Regular;
    return S_ISDIR(status.st_mode) ? LocalFile::Directory : LocalFile::Special;
}

QByteArray realPath(const QByteArray& name)
{
    char* resolved = realpath(name.constData(), nullptr);
    const QByteArray path(resolved);
    free(resolved);
    return path;
}

// One system call where realpath() needs several for each directory. Empty where /proc is missing.
QByteArray pathOfDescriptor(int descriptor)
{
    char link[32];
    snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    char target[PATH_MAX];
    const ssize_t length = readlink(link, target, sizeof target);
    return length > 0 && length < PATH_MAX ? QByteArray(target, static_cast<int>(length)) : QByteArray();
}

} // namespace

LocalFile::LocalFile(const QByteArray& name)
{
    // The system would take a name with a NUL for its first part. Looking comes before opening because opening
    // alone makes some devices act.
    if (name.contains('\0') || stat(name.constData(), &m_status) != 0)
        return;
    m_kind = kindOf(m_status);
    if (m_kind == Regular)
        openRegular(name);
    else
        m_readable = access(name.constData(), R_OK) == 0;
    identify(name);
}

LocalFile::~LocalFile()
{
    if (m_descriptor >= 0)
        close(m_descriptor);
}

void LocalFile::openRegular(const QByteArray& name)
{
    // Non-blocking, for a FIFO that took the file's place just now.
    m_descriptor = open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    m_error = m_descriptor < 0 ? errno : 0;
    m_readable = m_error != EACCES && m_error != EPERM;
    if (m_descriptor < 0)
        return;
    fstat(m_descriptor, &m_status);
    m_kind = kindOf(m_status);
}

void LocalFile::identify(const QByteArray& name)
{
    // A name removed since then has no canonical path any more.
    if (m_descriptor >= 0 && m_status.st_nlink > 0)
        m_canonicalPath = pathOfDescriptor(m_descriptor);
    if (m_canonicalPath.isEmpty())
        m_canonicalPath = realPath(name);
    if (m_canonicalPath.isEmpty())
        m_kind = Missing;
}

QDateTime LocalFile::lastModified() const
{
    const qint64 milliseconds = qint64(m_status.st_mtim.tv_sec) * 1000 + m_status.st_mtim.tv_nsec / 1000000;
    return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC);
}
