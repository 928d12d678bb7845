#pragma once

#include <QByteArray>
#include <QDateTime>

#include <sys/stat.h>

/// What a local name stands for, found out without ever blocking and without a gap between looking and opening: the
/// canonical path and the modification time are those of the file that is open.
class LocalFile {
public:
    enum Kind {
        Missing, ///< Nothing there, or nothing that can be reached.
        Directory,
        Regular,
        Special, ///< A FIFO, device or socket; it is not opened.
    };

    /// `name` is in the local 8-bit encoding.
    explicit LocalFile(const QByteArray& name);
    ~LocalFile();
    LocalFile(const LocalFile&) = delete;
    LocalFile& operator=(const LocalFile&) = delete;

    Kind kind() const { return m_kind; }
    bool isReadable() const { return m_readable; }
    const QByteArray& canonicalPath() const { return m_canonicalPath; } ///< Empty when it is Missing.
    QDateTime lastModified() const; ///< In milliseconds, UTC.
    const struct stat& status() const { return m_status; } ///< Of what is open.
    int descriptor() const { return m_descriptor; } ///< Of a Regular file; -1 when it could not be opened.
    int error() const { return m_error; } ///< Why it could not: an errno.

private:
    void openRegular(const QByteArray& name);
    void identify(const QByteArray& name);

    Kind m_kind = Missing;
    bool m_readable = false;
    int m_descriptor = -1;
    int m_error = 0;
    QByteArray m_canonicalPath;
    struct stat m_status = {};
};
