#include "NotFoundHandler.h"

#include <libsoup/soup.h>

#include "Message.h"
#include "WebserverLog.h"

void NotFoundHandler::handle(Message* message)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "NotFoundHandler: request: '" << message->fullUri() << "'");
    message->setStatus(SOUP_STATUS_NOT_FOUND, QString());
}
