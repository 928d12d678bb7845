#pragma once

#include <QFileInfo>
#include <QString>

#include <libsoup/soup.h>

#include <functional>
#include <memory>

#include "ETagCache.h"

class GuardedMapping;
class LocalFile;
class Message;

/// One answer from a file, in the order of the checks: there and inside the root, readable, a directory, mapped, wanted
/// by the conditional fields (RFC 9110, section 13), method, range. Copied into the callback when the answer has to
/// wait.
class FileReply {
public:
    /// `answered` is called when the answer is complete, unless the client has gone by then.
    FileReply(Message* message, const QString& rootPath, const std::function<void()>& answered)
        : m_message(message), m_rootPath(rootPath), m_answered(answered)
    {
    }

    void serve(const QFileInfo& file, const QString& rootRedirect, const QString& contentType);

private:
    using Mapping = std::shared_ptr<GuardedMapping>;
    enum Outcome { Answered, Waiting };

    Outcome serveFile(const QFileInfo& file, const QString& rootRedirect, const QString& contentType);
    Outcome serveDirectory(const QFileInfo& directory, const LocalFile& local, const QString& rootRedirect);
    Outcome serveRegular(const LocalFile& local);
    Outcome serveMapping(const QDateTime& lastModified, const Mapping& mapping);
    Outcome serveLater(const QDateTime& lastModified, const Mapping& mapping);
    Outcome serveRead(const ETagCacheEntry* entry, const Mapping& mapping);
    Outcome serveChanged();
    Outcome serveMapped(const ETagCacheEntry& entry, const Mapping& mapping);
    Outcome serveGet(const ETagCacheEntry& entry, const Mapping& mapping);
    Outcome serveWithoutRange();

    Outcome notFound(const LocalFile& local);
    Outcome forbidden();
    Outcome failed(const QString& reason);
    Outcome redirect(const QString& appended);
    Outcome unsatisfiable(qint64 length);
    Outcome text(int status, const QString& body);
    Outcome empty(int status);

    SoupMessageHeaders* requestHeaders() const;
    SoupMessageHeaders* responseHeaders() const;
    bool isMethod(const char* method) const;
    void appendBody(const Mapping& mapping, qint64 offset, qint64 length);
    void finish();

    Message* m_message; ///< Valid, as long as this is not Waiting.
    QString m_rootPath;
    std::function<void()> m_answered;
    QFileInfo m_file;
    QString m_contentType;
    bool m_paused = false;
    bool m_changedBefore = false; ///< The file became shorter while it was read, and is served anew.
};
