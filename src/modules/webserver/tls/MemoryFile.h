#pragma once

#include <QString>

/// A file in memory for those who take a private key from files alone. It has a path in this process, on no disk, and
/// goes with the object or with the process.
class MemoryFile {
public:
    explicit MemoryFile(const QString& content);
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    QString path() const; ///< Of no file when there was no memory or no descriptor.

private:
    int m_fd;
};
