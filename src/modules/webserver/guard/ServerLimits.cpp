#include "ServerLimits.h"

#include "CMRoot.h"
#include "WebserverLog.h"
#include "ZarkPaths.h"

namespace {

template <class T> void readLimit(const char* name, T* limit)
{
    const ZarkValue value(CMRoot()->getValue(ZarkWebserverLimitPath(QString::fromLatin1(name))));
    if (value.type() == ZarkValueType::I32 && value.i32() > 0)
        *limit = value.i32();
}

} // namespace

ServerLimits ServerLimits::fromSettings()
{
    dbglog_scopedFunction(webserverLog());
    ServerLimits limits;
    readLimit("bodyBytes", &limits.bodyBytes);
    readLimit("headerCount", &limits.headerCount);
    readLimit("headerSeconds", &limits.headerSeconds);
    readLimit("bodySeconds", &limits.bodySeconds);
    readLimit("uploadSeconds", &limits.uploadSeconds);
    readLimit("idleSeconds", &limits.idleSeconds);
    readLimit("stalledSeconds", &limits.stalledSeconds);
    readLimit("values", &limits.values);
    readLimit("rows", &limits.rows);
    readLimit("connections", &limits.connections);
    readLimit("proxyFetches", &limits.proxyFetches);
    readLimit("proxyFetchesPerClient", &limits.proxyFetchesPerClient);
    readLimit("proxyBytes", &limits.proxyBytes);
    readLimit("queuesPerClient", &limits.queuesPerClient);
    return limits;
}
