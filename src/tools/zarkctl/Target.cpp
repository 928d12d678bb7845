#include "Target.h"

#include "Failure.h"

QUrl urlFrom(const QString& text)
{
    // A host alone is enough.
    const QString whole = text.contains(QLatin1String("://")) ? text : QStringLiteral("http://") + text;
    QUrl url(whole, QUrl::StrictMode);
    const QString scheme = url.scheme();
    if (!url.isValid() || url.host().isEmpty() || (scheme != QLatin1String("http") && scheme != QLatin1String("https")))
        throw Failure{ ExitUsage, QStringLiteral("no http or https URL: ") + whole.section(QLatin1Char('@'), -1) };
    if (!url.userInfo().isEmpty())
        throw Failure{ ExitUsage, QStringLiteral("no user or password in a URL: use --user and --password-file") };
    // The URL exactly as the server rebuilds it from the request line and the Host header: that text is signed.
    if (url.port() == (scheme == QLatin1String("https") ? 443 : 80))
        url.setPort(-1);
    url.setFragment(QString());
    url.setQuery(QString());
    return url;
}

QString Target::name() const
{
    const QString host = url.host().contains(QLatin1Char(':')) ? QStringLiteral("[%1]").arg(url.host()) : url.host();
    return url.port() < 0 ? host : QStringLiteral("%1:%2").arg(host).arg(url.port());
}
