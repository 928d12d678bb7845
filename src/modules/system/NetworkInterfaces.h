#pragma once

#include <QStringList>
#include <QVariantHash>

/// Tells interfaces apart by name: an access point is named "ap..." or "uap...", or is one of `accessPoints`; otherwise
/// it is wireless when its directory under `sysfs` says so, and wired in every other case.
class InterfaceClassifier {
public:
    enum Kind { Wired, Wireless, AccessPoint };

    explicit InterfaceClassifier(
        const QStringList& accessPoints = {}, const QString& sysfs = QStringLiteral("/sys/class/net"))
        : m_accessPoints(accessPoints), m_sysfs(sysfs)
    {
    }
    Kind kind(const QString& interface) const;

private:
    QStringList m_accessPoints;
    QString m_sysfs;
};

/// The networkInfo value of this machine now: interfaces by name, addresses IPv4 first and in numerical order. Without
/// loopback; interfaces that are down have no addresses; an IPv6 address counts from when it is usable to its removal.
/// Empty when the interfaces cannot be read.
QVariantHash readNetworkInfo(const InterfaceClassifier& classifier);
