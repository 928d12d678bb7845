#include "SameOrigin.h"

namespace {

QByteArray withoutDefaultPort(const QByteArray& authority)
{
    const QByteArray port = QByteArrayLiteral(":443");
    return authority.endsWith(port) ? authority.chopped(port.size()) : authority;
}

} // namespace

bool isSameOrigin(const QByteArray& origin, const QByteArray& referer, const QByteArray& host)
{
    const QByteArray scheme = QByteArrayLiteral("https://");
    const QByteArray sent = (origin.isEmpty() ? referer : origin).toLower();
    if (!sent.startsWith(scheme) || host.isEmpty())
        return false;
    const int path = sent.indexOf('/', scheme.size());
    const QByteArray authority = sent.mid(scheme.size(), path < 0 ? -1 : path - scheme.size());
    return withoutDefaultPort(authority) == withoutDefaultPort(host.toLower());
}
