#include "HostFilter.h"

#include <QHostAddress>

#include <algorithm>
#include <array>

namespace {

bool parsesAsAddress(const QByteArray& text)
{
    // The parser also takes short forms such as "127.1", which hold no name that anybody could register.
    QHostAddress address;
    return address.setAddress(QString::fromLatin1(text));
}

QByteArray withoutPort(const QByteArray& host)
{
    const int colon = host.lastIndexOf(':');
    return colon < 0 ? host : host.left(colon);
}

bool isAddress(QByteArray host)
{
    if (!host.startsWith('['))
        return parsesAsAddress(withoutPort(host));
    host.remove(0, 1);
    const int port = host.lastIndexOf("]:");
    if (port >= 0)
        host.truncate(port + 1);
    if (!host.endsWith(']'))
        return false;
    host.chop(1);
    return parsesAsAddress(host);
}

bool isLocalName(QByteArray name)
{
    static const std::array<QByteArray, 4> localNames{
        "localhost",
        "localhost6",
        "localhost.localdomain",
        "localhost6.localdomain6",
    };
    if (name.endsWith('.'))
        name.chop(1);
    return std::find(localNames.begin(), localNames.end(), name) != localNames.end() || name.endsWith(".local")
        || !name.contains('.');
}

} // namespace

bool isAcceptedHost(const QByteArray& host)
{
    return isAddress(host) || isLocalName(withoutPort(host));
}
