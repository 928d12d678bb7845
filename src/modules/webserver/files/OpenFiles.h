#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QHash>

#include <memory>

#include <sys/stat.h>

class GuardedMapping;
class LocalFile;

/// The files sent within the last second, still mapped: one look at the file tells whether its mapping serves again.
/// They are let go after that second, so that nothing keeps a removed file or a file system in use. One for the
/// process; on the worker's thread.
class OpenFiles {
public:
    struct File {
        QString canonicalPath;
        QDateTime lastModified;
        std::shared_ptr<GuardedMapping> mapping;
    };

    static OpenFiles& instance();

    /// Null when the file is not here, has changed since, or its mapping is damaged or sent too often at once. The
    /// pointer is good until the next call.
    const File* find(const QByteArray& name);
    /// Keeps the mapping of a regular file, unless there are too many already.
    void insert(const QByteArray& name, const LocalFile& local, const std::shared_ptr<GuardedMapping>& mapping);

private:
    struct Entry {
        File file;
        struct stat status = {};
        qint64 since = 0; ///< In microseconds of the monotonic clock.
    };

    OpenFiles() = default;
    bool dropExpired(); ///< False when nothing is left.

    QHash<QByteArray, Entry> m_entries;
};
