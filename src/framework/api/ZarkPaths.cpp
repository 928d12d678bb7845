#include "ZarkPaths.h"

#include "CMRoot.h"

namespace {

CMPath webserverPath(const char* name)
{
    return CMPath::fromEncoded(QLatin1String("settings:webserver/") + QLatin1String(name));
}

} // namespace

CMPath ZarkWebserverPortPath()
{
    static const CMPath path = webserverPath("port");
    return path;
}

CMPath ZarkWebserverHttpsPortPath()
{
    static const CMPath path = webserverPath("httpsPort");
    return path;
}

CMPath ZarkWebserverHttpsCertPath()
{
    static const CMPath path = webserverPath("httpsCert");
    return path;
}

CMPath ZarkWebserverHttpsPrivateKeyPath()
{
    static const CMPath path = webserverPath("httpsPrivateKey");
    return path;
}

CMPath ZarkWebserverHttpsUseDeviceCertPath()
{
    static const CMPath path = webserverPath("httpsUseDeviceCert");
    return path;
}

CMPath ZarkWebserverDocumentRootPath()
{
    static const CMPath path = webserverPath("documentRoot");
    return path;
}

CMPath ZarkWebserverDefaultLocationPath()
{
    static const CMPath path = webserverPath("defaultLocation");
    return path;
}

CMPath ZarkWebserverStrictPath()
{
    static const CMPath path = webserverPath("strict");
    return path;
}

CMPath ZarkWebserverAuthModePath()
{
    static const CMPath path = webserverPath("authMode");
    return path;
}

CMPath ZarkWebserverUsersPath()
{
    static const CMPath path = webserverPath("users");
    return path;
}

CMPath ZarkWebserverChangePasswordPath()
{
    static const CMPath path = webserverPath("changePassword");
    return path;
}

CMPath ZarkWebserverEnableExternalWebAccessPath()
{
    static const CMPath path = webserverPath("enableExternalWebAccess");
    return path;
}

CMPath ZarkWebserverProxyAllowedHostsPath()
{
    static const CMPath path = webserverPath("proxyAllowedHosts");
    return path;
}

CMPath ZarkWebserverStrictTransportSecondsPath()
{
    static const CMPath path = webserverPath("strictTransportSeconds");
    return path;
}

CMPath ZarkWebserverLimitPath(const QString& name)
{
    static const CMPath limits = webserverPath("limits");
    return limits.child(name);
}

CMPath ZarkUILanguagePath()
{
    static const CMPath path = CMPath::fromEncoded(QStringLiteral("settings:ui/language"));
    return path;
}

CMPath ZarkNetworkInfoPath()
{
    static const CMPath path = CMPath::fromEncoded(QStringLiteral("system:network/info"));
    return path;
}

CMPath ZarkWebserverUpdateBytesPath()
{
    static const CMPath path = CMPath::fromEncoded(QStringLiteral("settings:webserver/limits/updateBytes"));
    return path;
}

CMPath ZarkFirmwareUpdatePath()
{
    static const CMPath path = CMPath::fromEncoded(QStringLiteral("system:update"));
    return path;
}

CMPath ZarkAnalyticsEnabledPath()
{
    static const CMPath path = CMPath::fromEncoded(QStringLiteral("settings:analytics/enabled"));
    return path;
}

CMPath ZarkAnalyticsReportEventPath()
{
    static const CMPath path = CMPath::fromEncoded(QStringLiteral("settings:analytics/reportEvent"));
    return path;
}

QString ZarkWebserverReadPathPrefix()
{
    static const CMPath path = webserverPath("readPathPrefix");
    return CMRoot() ? ZarkValue(CMRoot()->getValue(path)).string() : QString();
}
