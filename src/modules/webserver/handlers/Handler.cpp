#include "Handler.h"

#include <libsoup/soup.h>

#include "Message.h"
#include "MimeTypes.h"
#include "WebserverLog.h"

Handler::Handler(const QString& documentRoot, QObject* parent) : QObject(parent), m_documentRoot(documentRoot)
{
    dbglog_scopedFunction(webserverLog());
}

const QString& Handler::documentRoot() const
{
    dbglog_scopedFunction(webserverLog());
    return m_documentRoot;
}

void Handler::setDocumentRoot(const QString& documentRoot)
{
    dbglog_scopedFunction(webserverLog());
    m_documentRoot = documentRoot;
}

void Handler::handle(Message* message)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "Handler: request: '" << message->fullUri() << "'");
    message->setStatus(SOUP_STATUS_NOT_FOUND, QString());
    message->setResponseBody(
        QByteArrayLiteral("These are not the pages you are looking for. Have you tried using HTTPS ?\n"),
        MimeTypes::Text::plain());
}
