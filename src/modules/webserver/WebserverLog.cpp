#include "WebserverLog.h"

const DbgLogger& webserverLog()
{
    static const DbgLogger logger("Webserver");
    return logger;
}
