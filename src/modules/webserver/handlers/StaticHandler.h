#pragma once

#include <QDir>
#include <QFileInfo>

#include <gio/gio.h>

#include <functional>

#include "ETagCache.h"
#include "Handler.h"

class CMValueItem;
class ZarkValue;

/// Answers from the files below the document root: GET, HEAD and POST (as GET), with validators and single ranges.
/// Plain HTTP from another host is refused until the node "enableExternalWebAccess" allows it.
class StaticHandler : public Handler {
    Q_OBJECT
public:
    using ETagCacheEntry = ::ETagCacheEntry;
    /// Called when the answer is complete; not at all when the client has gone before.
    using Answered = std::function<void()>;

    /// `rootRedirect` is appended to the URL of the root itself, unless it is empty; `urlPrefix` is cut off the URL's
    /// path before it is taken for a file's. A root that does not exist is logged, and every file in it is missing.
    StaticHandler(const QString& documentRoot, const QString& rootRedirect, const QString& urlPrefix, QObject* parent);

    void handle(Message* message) override;
    bool canRespond(Message* msg) const;

    /// Answers from one file: at once, or, when a large file has to be read for its validator first, from the event
    /// loop, with the exchange paused meanwhile. Files whose canonical path does not start with `rootPath` are missing.
    /// An empty `contentType` stands for the file's own.
    static void serveFile(const QFileInfo& file, const QString& rootPath, const QString& rootRedirect, Message* msg,
        const QString& contentType, const Answered& answered = {});

    /// The file's entry in the process's cache, made if it is missing or outdated. Reads the whole mapping then.
    static ETagCacheEntry getCacheEntry(const QFileInfo& file, GMappedFile* mapping);
    /// The MD5 digest in hexadecimal digits; empty for a directory. Any thread.
    static QString calculateETag(const QFileInfo& file, const char* data, size_t length);
    /// What GIO makes of name and content; the framework's map of extensions where GIO is unsure or sees but text.
    /// Any thread.
    static QString getMimeType(const QFileInfo& file, const char* data, size_t length);

private:
    void on_webServerEnable_changed(const ZarkValue& value);

    QDir m_documentRoot;
    QString m_rootPath; ///< Absolute; empty without a document root.
    QString m_rootRedirect;
    QString m_urlPrefix;
    bool m_webServerEnabled = false;
    CMValueItem* m_webServerEnable;
};
