#pragma once

#include <QFileInfo>

#include <gio/gio.h>

#include "ETagCache.h"

/// The entry in the process's cache of the file that was mapped, whatever has its name by now; made if it is missing or
/// outdated, which reads the whole mapping.
ETagCacheEntry cacheEntryOf(const QFileInfo& file, const QDateTime& lastModified, GMappedFile* mapping);

/// The MD5 digest in hexadecimal digits; empty for a directory. Any thread.
QString fileETag(const QFileInfo& file, const char* data, size_t length);

/// What GIO makes of name and content; the framework's map of extensions where GIO is unsure or sees but text.
/// Any thread.
QString fileMimeType(const QFileInfo& file, const char* data, size_t length);
