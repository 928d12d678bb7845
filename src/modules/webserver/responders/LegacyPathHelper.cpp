#include "LegacyPathHelper.h"

#include <QHash>

#include <algorithm>

#include "WebserverLog.h"

namespace {

const QHash<QString, QString>& legacyPrefixes()
{
    static const QHash<QString, QString> table{ { QStringLiteral("/player"), QStringLiteral("player:player") } };
    return table;
}

} // namespace

bool LegacyPathHelper::isLegacy(const CMPath& path)
{
    dbglog_scopedFunction(webserverLog());
    const QStringList prefixes = legacyPrefixes().keys();
    return std::any_of(prefixes.begin(), prefixes.end(),
        [&path](const QString& prefix) { return path.toEncoded().startsWith(prefix); });
}

bool LegacyPathHelper::wasLegacy(const CMPath& path)
{
    dbglog_scopedFunction(webserverLog());
    const QStringList prefixes = legacyPrefixes().values();
    return std::any_of(prefixes.begin(), prefixes.end(),
        [&path](const QString& prefix) { return path.toEncoded().startsWith(prefix); });
}

CMPath LegacyPathHelper::fromLegacy(const CMPath& path)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_trace(webserverLog(), "updating path: " << path.toEncoded());
    QString text = path.toEncoded();
    if (!text.startsWith(QLatin1Char('/')))
        return path;
    dbglog_warn(webserverLog(), "Path without worker name is deprecated, please fix it: " << path.toEncoded());
    const auto& table = legacyPrefixes();
    for (auto entry = table.cbegin(); entry != table.cend(); ++entry) {
        if (text.startsWith(entry.key()))
            text.replace(0, entry.key().size(), entry.value());
    }
    return CMPath::fromEncoded(text);
}

CMPath LegacyPathHelper::toLegacy(const CMPath& path)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_trace(webserverLog(), "changing to legacy path: " << path.toEncoded());
    QString text = path.toEncoded();
    const auto& table = legacyPrefixes();
    for (auto entry = table.cbegin(); entry != table.cend(); ++entry) {
        if (text.startsWith(entry.value()))
            text.replace(0, entry.value().size(), entry.key());
    }
    return CMPath::fromEncoded(text);
}
