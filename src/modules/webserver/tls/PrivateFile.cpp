#include "PrivateFile.h"

#include "WebserverLog.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t OwnerOnly = S_IRUSR | S_IWUSR;
constexpr int LockRetryMilliseconds = 10;

bool fail(QString* error, const QString& path, const QString& reason)
{
    *error = path + QStringLiteral(": ") + reason;
    return false;
}

QString lastFault()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

/// Without the sticky bit, whoever may write to a directory may also replace what others have in it.
bool isReplaceableByOthers(const QString& directory)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(directory).constData(), &status) != 0)
        return true;
    return (status.st_mode & (S_IWGRP | S_IWOTH)) && !(status.st_mode & S_ISVTX);
}

bool isPrivate(int fd)
{
    struct stat status = {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid()
        && !(status.st_mode & (S_IRWXG | S_IRWXO));
}

} // namespace

bool PrivateFile::create(const QByteArray& content, QString* error) const
{
    dbglog_scopedFunction(webserverLog());
    if (isReplaceableByOthers(QFileInfo(m_path).path()))
        return fail(error, m_path, QStringLiteral("the directory lets others replace the file"));
    const QByteArray name = QFile::encodeName(m_path);
    // Removes a link and not what it points to; fails on a directory and, in a sticky one, on a file of others.
    if (::unlink(name.constData()) != 0 && errno != ENOENT)
        return fail(error, m_path, lastFault());
    // Whoever is faster than this open() makes it fail.
    const int fd = ::open(name.constData(), O_CREAT | O_EXCL | O_NOFOLLOW | O_WRONLY | O_CLOEXEC, OwnerOnly);
    if (fd < 0)
        return fail(error, m_path, lastFault());
    QFile file;
    const bool written = file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle)
        && file.write(content) == content.size() && file.flush();
    return written || fail(error, m_path, file.errorString());
}

bool PrivateFile::read(QByteArray* content, QString* error) const
{
    dbglog_scopedFunction(webserverLog());
    const int fd = ::open(QFile::encodeName(m_path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return fail(error, m_path, lastFault());
    QFile file;
    file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
    if (!isPrivate(fd))
        return fail(error, m_path, QStringLiteral("not a file that only its owner can read"));
    *content = file.readAll();
    return true;
}

PrivateFileLock::PrivateFileLock(const QString& path, int timeoutMs)
    : m_fd(::open(QFile::encodeName(path).constData(), O_CREAT | O_NOFOLLOW | O_RDWR | O_CLOEXEC, OwnerOnly))
{
    // Somebody else's file could be held for ever.
    if (m_fd < 0 || !isPrivate(m_fd))
        return;
    const QDeadlineTimer deadline(timeoutMs);
    while (!(m_locked = ::flock(m_fd, LOCK_EX | LOCK_NB) == 0) && !deadline.hasExpired())
        QThread::msleep(LockRetryMilliseconds);
}

PrivateFileLock::~PrivateFileLock()
{
    if (m_fd >= 0)
        ::close(m_fd);
}
