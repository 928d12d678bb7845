#pragma once

#include <QString>

#include <gio/gio.h>

#include "ETagCache.h"

/// What reading all of a mapped file tells of it, put into the process's cache in place of what was there. The name may
/// stand for something else by now.
ETagCacheEntry buildCacheEntry(const QString& absolutePath, const QDateTime& lastModified, GMappedFile* mapping);

/// The MD5 digest in hexadecimal digits. Any thread.
QString contentDigest(const char* data, size_t length);

/// What GIO makes of name and content; the framework's map of extensions where GIO is unsure or sees but text. Any
/// thread.
QString contentType(const QString& absolutePath, const char* data, size_t length);
