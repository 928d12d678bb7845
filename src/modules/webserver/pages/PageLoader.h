#pragma once

#include <QCache>
#include <QSharedPointer>
#include <QVector>

#include <sys/stat.h>

#include "Page.h"

/// The pages below a document root, parsed, with what they include in its place. A page is kept as long as none of its
/// files has changed, and there is room. One for all requests.
class PageLoader {
public:
    enum Outcome {
        Loaded,
        Missing, ///< Or outside the root.
        Unreadable,
        Faulty, ///< The fault says where.
    };
    struct Result {
        Outcome outcome = Missing;
        QSharedPointer<const Page> page;
        PageFault fault;
    };
    /// One file of a page as it was read.
    struct File {
        QByteArray name; ///< Local encoding.
        struct stat status = {};
    };

    static constexpr int MaximumFileBytes = 1024 * 1024;
    static constexpr int MaximumPageBytes = 4 * 1024 * 1024; ///< Of all its files; one counts as often as it is there.
    static constexpr int MaximumFiles = 256;
    static constexpr int MaximumDepth = 8;

    explicit PageLoader(const QString& documentRoot) : m_documentRoot(documentRoot), m_pages(CachedBytes) { }

    /// `path` is that of the URL, decoded. Reads files, and so blocks for as long as the disk does.
    Result load(const QString& path);

private:
    static constexpr int CachedBytes = 16 * 1024 * 1024; ///< Room for the longest page.

    struct Entry {
        QSharedPointer<const Page> page;
        QVector<File> files;
    };

    QString m_documentRoot;
    QCache<QByteArray, Entry> m_pages; ///< By local name.
};
