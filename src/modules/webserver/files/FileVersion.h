#pragma once

#include <sys/stat.h>

/// Whether a file that was looked at twice is the same one, and unchanged as far as the system can tell. The change
/// time covers a new name, other permissions and whatever else might forbid the file.
inline bool isSameVersion(const struct stat& a, const struct stat& b)
{
    const auto isSame = [](const timespec& one, const timespec& other) {
        return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
    };
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size && isSame(a.st_mtim, b.st_mtim)
        && isSame(a.st_ctim, b.st_ctim);
}
