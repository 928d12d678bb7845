#pragma once

#include <QByteArray>
#include <QString>

/// A file that nobody else may read, under a fixed name in a directory that everybody may write to: the name may have
/// been prepared by somebody else, as a symbolic link to a file that must not be overwritten or as a file of his own.
class PrivateFile {
public:
    explicit PrivateFile(const QString& path) : m_path(path) { }

    const QString& path() const { return m_path; }

    /// Makes the file anew, in place of whatever has its name, with mode 0600. A program that then opens the name
    /// writes to this very file: in a directory with the sticky bit nobody else can replace it. False, with a sentence
    /// in `error`, when the name belongs to somebody else or the directory lets others replace the file.
    bool create(const QByteArray& content, QString* error) const;
    /// Reads it back. False, with a sentence in `error`, unless it is a file of this user's, unreadable by others.
    bool read(QByteArray* content, QString* error) const;

private:
    QString m_path;
};

/// Keeps other processes of this user from working on the same files; the lock ends with the object.
class PrivateFileLock {
public:
    /// Waits for `timeoutMs` milliseconds at the most and then goes on without the lock.
    PrivateFileLock(const QString& path, int timeoutMs);
    ~PrivateFileLock();
    PrivateFileLock(const PrivateFileLock&) = delete;
    PrivateFileLock& operator=(const PrivateFileLock&) = delete;

    bool isLocked() const { return m_locked; }

private:
    int m_fd;
    bool m_locked = false;
};
