#include "NetworkInterfaces.h"

#include <QFile>
#include <QFileInfo>
#include <QNetworkInterface>
#include <QSet>

#include <algorithm>
#include <cstring>
#include <linux/if_addr.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ZarkNetworkInfo.h"

namespace {

struct Interface {
    QString name;
    QList<QNetworkAddressEntry> addresses;
};

/// Whether its administrator has it up. IsUp asks for a carrier besides; a cable that is pulled takes no address away.
bool isUp(const QNetworkInterface& interface)
{
    const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    qstrncpy(request.ifr_name, interface.name().toUtf8().constData(), sizeof request.ifr_name);
    const bool up = ioctl(probe, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP);
    close(probe);
    return up;
}

/// As /proc/net/if_inet6 has it.
QByteArray ipv6Key(const QByteArray& interface, const QByteArray& hexAddress)
{
    return interface + ' ' + hexAddress;
}

/// IPv6 addresses that are still being checked for duplicates, or have failed that.
QSet<QByteArray> unusableIPv6()
{
    QSet<QByteArray> unusable;
    QFile file(QStringLiteral("/proc/net/if_inet6")); // Not there on a machine without IPv6.
    const QList<QByteArray> lines = file.open(QIODevice::ReadOnly) ? file.readAll().split('\n') : QList<QByteArray>();
    for (const QByteArray& line : lines) {
        const QList<QByteArray> fields = line.simplified().split(' '); // address index prefix scope flags interface
        const uint flags = fields.value(4).toUInt(nullptr, 16);
        // The kernel lets an optimistic address be used meanwhile.
        const bool tentative = (flags & IFA_F_TENTATIVE) && !(flags & IFA_F_OPTIMISTIC);
        if (tentative || (flags & IFA_F_DADFAILED))
            unusable.insert(ipv6Key(fields.value(5), fields.value(0)));
    }
    return unusable;
}

bool precedes(const QNetworkAddressEntry& left, const QNetworkAddressEntry& right)
{
    if (left.ip().protocol() != right.ip().protocol())
        return left.ip().protocol() == QAbstractSocket::IPv4Protocol;
    const Q_IPV6ADDR l = left.ip().toIPv6Address(); // An IPv4 address comes as its mapped form.
    const Q_IPV6ADDR r = right.ip().toIPv6Address();
    return memcmp(&l, &r, sizeof l) < 0;
}

QList<QNetworkAddressEntry> usableAddresses(const QNetworkInterface& interface, const QSet<QByteArray>& unusable)
{
    if (!isUp(interface))
        return {};
    QList<QNetworkAddressEntry> addresses = interface.addressEntries();
    const auto isUnusable = [&](const QNetworkAddressEntry& entry) {
        const Q_IPV6ADDR bytes = entry.ip().toIPv6Address();
        const QByteArray hex = QByteArray(reinterpret_cast<const char*>(&bytes), sizeof bytes).toHex();
        return unusable.contains(ipv6Key(interface.name().toUtf8(), hex));
    };
    addresses.erase(std::remove_if(addresses.begin(), addresses.end(), isUnusable), addresses.end());
    std::sort(addresses.begin(), addresses.end(), precedes);
    return addresses;
}

/// One or several interfaces as one: everybody's addresses, and the name of the first that has any.
QVariantHash toVariant(const QVector<Interface>& interfaces)
{
    QVariantList addresses;
    for (const Interface& interface : interfaces) {
        for (const QNetworkAddressEntry& entry : interface.addresses) {
            QHostAddress ip = entry.ip();
            ip.setScopeId({});
            addresses.append(ZarkNetworkAddress(ip.toString(), entry.prefixLength()).toVariant());
        }
    }
    auto named = std::find_if(interfaces.begin(), interfaces.end(),
        [](const Interface& interface) { return !interface.addresses.isEmpty(); });
    if (named == interfaces.end())
        named = interfaces.begin();
    const QString name = named == interfaces.end() ? QString() : named->name;
    return { { QStringLiteral("name"), name }, { QStringLiteral("addresses"), addresses } };
}

} // namespace

InterfaceClassifier::Kind InterfaceClassifier::kind(const QString& interface) const
{
    if (m_accessPoints.contains(interface) || interface.startsWith(QLatin1String("ap"))
        || interface.startsWith(QLatin1String("uap")))
        return AccessPoint;
    const QString directory = m_sysfs + QLatin1Char('/') + interface;
    const bool wireless = QFileInfo::exists(directory + QStringLiteral("/wireless"))
        || QFileInfo::exists(directory + QStringLiteral("/phy80211"));
    return wireless ? Wireless : Wired;
}

QVariantHash readNetworkInfo(const InterfaceClassifier& classifier)
{
    QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    if (interfaces.isEmpty())
        return {}; // There is always loopback.
    std::sort(interfaces.begin(), interfaces.end(),
        [](const QNetworkInterface& l, const QNetworkInterface& r) { return l.name() < r.name(); });
    const QSet<QByteArray> unusable = unusableIPv6();

    QVector<Interface> byKind[2];
    QVariantList accessPoints;
    for (const QNetworkInterface& interface : qAsConst(interfaces)) {
        if (interface.flags() & QNetworkInterface::IsLoopBack)
            continue;
        const Interface one{ interface.name(), usableAddresses(interface, unusable) };
        const InterfaceClassifier::Kind kind = classifier.kind(one.name);
        if (kind == InterfaceClassifier::AccessPoint)
            accessPoints.append(toVariant({ one }));
        else
            byKind[kind].append(one);
    }
    return { { QStringLiteral("wired"), toVariant(byKind[InterfaceClassifier::Wired]) },
        { QStringLiteral("wireless"), toVariant(byKind[InterfaceClassifier::Wireless]) },
        { QStringLiteral("softAp"), QVariantHash{ { QStringLiteral("aps"), accessPoints } } } };
}
