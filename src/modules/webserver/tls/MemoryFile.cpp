#include "MemoryFile.h"

#include <sys/mman.h>
#include <unistd.h>

MemoryFile::MemoryFile(const QString& content) : m_fd(memfd_create("zark-pem", MFD_CLOEXEC))
{
    const QByteArray bytes = content.toUtf8();
    if (m_fd < 0 || ::write(m_fd, bytes.constData(), static_cast<size_t>(bytes.size())) == bytes.size())
        return;
    ::close(m_fd);
    m_fd = -1;
}

MemoryFile::~MemoryFile()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

QString MemoryFile::path() const
{
    return QStringLiteral("/proc/self/fd/%1").arg(m_fd);
}
