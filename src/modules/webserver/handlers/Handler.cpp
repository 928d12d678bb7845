#include "Handler.h"

#include <libsoup/soup.h>

#include "Message.h"
#include "MimeTypes.h"
#include "WebserverLog.h"

void Handler::handle(Message* message)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "Handler: request: '" << message->fullUri() << "'");
    message->setStatus(SOUP_STATUS_NOT_FOUND, QString());
    message->setResponseBody(
        QByteArrayLiteral("These are not the pages you are looking for. Have you tried using HTTPS ?\n"),
        MimeTypes::Text::plain());
}
