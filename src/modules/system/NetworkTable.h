#pragma once

#include <QHash>
#include <QHostAddress>
#include <QStringList>
#include <QVariantHash>
#include <QVector>

struct nlmsghdr;

/// What the kernel tells of interfaces and addresses, put together from the messages of one dump.
class NetworkTable {
public:
    enum Kind { Wired, Wireless, AccessPoint };

    /// Tells interfaces apart by name: an access point is named "ap..." or "uap...", or is one of `accessPoints`;
    /// otherwise it is wireless when its directory under `sysfs` says so, and wired in every other case.
    class Classifier {
    public:
        explicit Classifier(
            const QStringList& accessPoints = {}, const QString& sysfs = QStringLiteral("/sys/class/net"))
            : m_accessPoints(accessPoints), m_sysfs(sysfs)
        {
        }
        Kind kind(const QString& interface) const;

    private:
        QStringList m_accessPoints;
        QString m_sysfs;
    };

    /// An RTM_NEWLINK or RTM_NEWADDR message; others are ignored.
    void add(const nlmsghdr* message);

    /// The networkInfo value: interfaces by name, addresses IPv4 first and in numerical order. Without loopback;
    /// interfaces that are down have no addresses; an IPv6 address counts from when it is usable to its removal.
    QVariantHash toNetworkInfo(const Classifier& classifier) const;

private:
    struct Address {
        QHostAddress ip;
        int prefixLength;
    };
    struct Interface {
        QString name;
        bool up = false;
        bool loopback = false;
        QVector<Address> addresses;
    };

    void addLink(const nlmsghdr* message);
    void addAddress(const nlmsghdr* message);
    static bool precedes(const Address& left, const Address& right);
    static QVariantHash toVariant(const QVector<Interface>& interfaces);

    QHash<int, Interface> m_interfaces; ///< By the kernel's index; an address may come before its link.
};
