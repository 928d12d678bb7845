#include "ApiLogger.h"

const DbgLogger& apiLogger()
{
    static const DbgLogger logger("zark.api");
    return logger;
}
