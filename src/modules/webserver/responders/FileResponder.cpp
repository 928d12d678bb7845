#include "FileResponder.h"

#include <QFileInfo>
#include <QPointer>
#include <QRegularExpression>

#include <libsoup/soup.h>

#include "FileReply.h"
#include "MimeTypes.h"
#include "Request.h"
#include "WebserverLog.h"
#include "ZarkPaths.h"

namespace {

constexpr int PrefixLength = 12; ///< Of "/file/stream", without the slash that starts the file name.

// The prefix is a pattern and stands as it is. A device that names none has no files to read.
bool isReadable(const QString& fileName)
{
    const QString prefix = ZarkWebserverReadPathPrefix();
    if (prefix.isEmpty())
        return false;
    const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(QStringLiteral("/?") + prefix + QStringLiteral("[^/]+")));
    return pattern.match(fileName).hasMatch();
}

} // namespace

void FileResponder::respond()
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(
        webserverLog(), "FileResponder: request " << request().requestId() << " '" << request().fullUri() << "'");
    const QString fileName = request().url().path(QUrl::FullyDecoded).mid(PrefixLength);
    if (isReadable(fileName))
        serve(fileName);
    else
        refuse(fileName);
}

void FileResponder::serve(const QString& fileName)
{
    const auto answered = [responder = QPointer<FileResponder>(this)] {
        if (responder)
            Q_EMIT responder->finished(responder->request().requestId());
    };
    FileReply(&request(), QString(), answered).serve(QFileInfo(fileName), QString(), QString());
}

void FileResponder::refuse(const QString& fileName)
{
    dbglog_warn(webserverLog(), "Access to invalid path:" << fileName);
    request().setEncoding(Message::PlainContentLength);
    request().setStatus(SOUP_STATUS_NOT_FOUND, QString());
    request().setResponseBody(
        QStringLiteral("The requested url '%1' was not found.").arg(request().fullUri()), MimeTypes::Text::plain());
    Q_EMIT finished(request().requestId());
}
