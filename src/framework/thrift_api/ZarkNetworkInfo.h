#pragma once

#include <QString>
#include <QVariant>

/// One address of an interface. JSON: {"ip": "192.0.2.7", "prefixLength": 24}.
class ZarkNetworkAddress {
public:
    ZarkNetworkAddress() = default;
    ZarkNetworkAddress(const QString& ip, int prefixLength) : m_ip(ip), m_prefixLength(prefixLength) { }
    explicit ZarkNetworkAddress(const QVariant& hash);

    const QString& ip() const { return m_ip; }
    int prefixLength() const { return m_prefixLength; }
    QVariant toVariant() const;

private:
    QString m_ip;
    int m_prefixLength = 0;
};

/// A wired, wireless or access-point interface. JSON: {"name": "eth0", "addresses": [...]}.
/// addresses() are values that convert to a ZarkNetworkAddress.
class ZarkNetworkInterface {
public:
    explicit ZarkNetworkInterface(const QVariant& hash = {});

    QString name() const;
    QVariantList addresses() const;

private:
    QVariantHash m_fields;
};

/// The soft access points. JSON: {"aps": [interface, ...]}. aps() are values that convert to a ZarkNetworkInterface.
class ZarkSoftAp {
public:
    explicit ZarkSoftAp(const QVariant& hash = {});

    QVariantList aps() const;

private:
    QVariantHash m_fields;
};

/// The device's network interfaces. JSON: {"wired": interface, "wireless": interface, "softAp": {"aps": [...]}}.
/// A device with several wired interfaces lists all their addresses under "wired".
class ZarkNetworkInfo {
public:
    explicit ZarkNetworkInfo(const QVariant& hash = {});

    ZarkNetworkInterface wired() const;
    ZarkNetworkInterface wireless() const;
    ZarkSoftAp softAp() const;

private:
    QVariantHash m_fields;
};
