#include "NetworkTable.h"

#include <QFileInfo>

#include <algorithm>
#include <cstring>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include "ZarkNetworkInfo.h"

namespace {

QHostAddress toHostAddress(int family, const rtattr* attribute)
{
    const auto* bytes = static_cast<const quint8*>(RTA_DATA(attribute));
    if (family == AF_INET6 && RTA_PAYLOAD(attribute) == 16)
        return QHostAddress(bytes);
    if (family == AF_INET && RTA_PAYLOAD(attribute) == 4)
        return QHostAddress(quint32(bytes[0]) << 24 | quint32(bytes[1]) << 16 | quint32(bytes[2]) << 8 | bytes[3]);
    return {};
}

/// Usable: the check for duplicates is over, or the kernel lets the address be used meanwhile.
bool isUsable(quint32 flags)
{
    const bool tentative = (flags & IFA_F_TENTATIVE) && !(flags & IFA_F_OPTIMISTIC);
    return !tentative && !(flags & IFA_F_DADFAILED);
}

} // namespace

NetworkTable::Kind NetworkTable::Classifier::kind(const QString& interface) const
{
    if (m_accessPoints.contains(interface) || interface.startsWith(QLatin1String("ap"))
        || interface.startsWith(QLatin1String("uap")))
        return AccessPoint;
    const QString directory = m_sysfs + QLatin1Char('/') + interface;
    const bool wireless = QFileInfo::exists(directory + QStringLiteral("/wireless"))
        || QFileInfo::exists(directory + QStringLiteral("/phy80211"));
    return wireless ? Wireless : Wired;
}

void NetworkTable::add(const nlmsghdr* message)
{
    if (message->nlmsg_type == RTM_NEWLINK)
        addLink(message);
    else if (message->nlmsg_type == RTM_NEWADDR)
        addAddress(message);
}

void NetworkTable::addLink(const nlmsghdr* message)
{
    const auto* link = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
    Interface& interface = m_interfaces[link->ifi_index];
    interface.up = link->ifi_flags & IFF_UP;
    interface.loopback = link->ifi_flags & IFF_LOOPBACK;
    int size = int(IFLA_PAYLOAD(message));
    for (const rtattr* at = IFLA_RTA(link); RTA_OK(at, size); at = RTA_NEXT(at, size)) {
        if (at->rta_type == IFLA_IFNAME)
            interface.name = QString::fromUtf8(static_cast<const char*>(RTA_DATA(at)));
    }
}

void NetworkTable::addAddress(const nlmsghdr* message)
{
    const auto* header = static_cast<const ifaddrmsg*>(NLMSG_DATA(message));
    quint32 flags = header->ifa_flags;
    QHostAddress address;
    QHostAddress local;
    int size = int(IFA_PAYLOAD(message));
    for (const rtattr* at = IFA_RTA(header); RTA_OK(at, size); at = RTA_NEXT(at, size)) {
        if (at->rta_type == IFA_ADDRESS)
            address = toHostAddress(header->ifa_family, at);
        else if (at->rta_type == IFA_LOCAL)
            local = toHostAddress(header->ifa_family, at);
        else if (at->rta_type == IFA_FLAGS)
            memcpy(&flags, RTA_DATA(at), sizeof flags); // All 32; the header has room for 8.
    }
    // On a point-to-point link the plain address is the other end's.
    const QHostAddress own = local.isNull() ? address : local;
    if (!own.isNull() && isUsable(flags))
        m_interfaces[int(header->ifa_index)].addresses.append({ own, header->ifa_prefixlen });
}

bool NetworkTable::precedes(const Address& left, const Address& right)
{
    if (left.ip.protocol() != right.ip.protocol())
        return left.ip.protocol() == QAbstractSocket::IPv4Protocol;
    const Q_IPV6ADDR l = left.ip.toIPv6Address(); // An IPv4 address comes as its mapped form.
    const Q_IPV6ADDR r = right.ip.toIPv6Address();
    return memcmp(&l, &r, sizeof l) < 0;
}

/// One or several interfaces as one: everybody's addresses, and the name of the first that has any.
QVariantHash NetworkTable::toVariant(const QVector<Interface>& interfaces)
{
    QVariantList addresses;
    for (const Interface& interface : interfaces) {
        for (const Address& address : interface.addresses)
            addresses.append(ZarkNetworkAddress(address.ip.toString(), address.prefixLength).toVariant());
    }
    auto named = std::find_if(interfaces.begin(), interfaces.end(),
        [](const Interface& interface) { return !interface.addresses.isEmpty(); });
    if (named == interfaces.end())
        named = interfaces.begin();
    const QString name = named == interfaces.end() ? QString() : named->name;
    return { { QStringLiteral("name"), name }, { QStringLiteral("addresses"), addresses } };
}

QVariantHash NetworkTable::toNetworkInfo(const Classifier& classifier) const
{
    QVector<Interface> interfaces;
    for (Interface interface : m_interfaces) {
        if (interface.loopback || interface.name.isEmpty())
            continue; // Without a name: gone between the dumps of links and of addresses.
        if (!interface.up)
            interface.addresses.clear();
        std::sort(interface.addresses.begin(), interface.addresses.end(), precedes);
        interfaces.append(interface);
    }
    std::sort(
        interfaces.begin(), interfaces.end(), [](const Interface& l, const Interface& r) { return l.name < r.name; });

    QVector<Interface> byKind[2];
    QVariantList accessPoints;
    for (const Interface& interface : qAsConst(interfaces)) {
        const Kind kind = classifier.kind(interface.name);
        if (kind == AccessPoint)
            accessPoints.append(toVariant({ interface }));
        else
            byKind[kind].append(interface);
    }
    return { { QStringLiteral("wired"), toVariant(byKind[Wired]) },
        { QStringLiteral("wireless"), toVariant(byKind[Wireless]) },
        { QStringLiteral("softAp"), QVariantHash{ { QStringLiteral("aps"), accessPoints } } } };
}
