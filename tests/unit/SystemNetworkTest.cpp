#include <QtTest>

#include "CMNodes.h"
#include "CMRoot.h"
#include "Files.h"
#include "Namespace.h"
#include "NetworkNode.h"
#include "ZarkPaths.h"

namespace {

bool ip(const QString& commands)
{
    return runTool("ip", { "-batch", "-" }, commands.toLatin1()).status == 0;
}

QString describe(const ZarkNetworkInterface& interface)
{
    QStringList words(interface.name());
    const QVariantList addresses = interface.addresses();
    for (const QVariant& variant : addresses) {
        const ZarkNetworkAddress address(variant);
        words.append(QStringLiteral("%1/%2").arg(address.ip()).arg(address.prefixLength()));
    }
    return words.join(QLatin1Char(' '));
}

QString wired()
{
    return describe(ZarkValue(CMRoot()->getValue(ZarkNetworkInfoPath())).networkInfo().wired());
}

/// What the kernel has dropped of the reports to this process's sockets.
int droppedReports()
{
    int dropped = 0;
    const QList<QByteArray> lines = contentOf("/proc/net/netlink").split('\n').mid(1);
    for (const QByteArray& line : lines) {
        const QList<QByteArray> fields = line.simplified().split(' '); // sk Eth Pid Groups Rmem Wmem Dump Locks Drops
        if (fields.value(1) == "0")
            dropped += fields.value(8).toInt();
    }
    return dropped;
}

} // namespace

/// In a network namespace of its own, which holds nothing but what the tests make.
class SystemNetworkTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(ip("link del zark0\n")); }

    void cleanup() { QVERIFY(ip("link del e0\n")); }

    void nodeFollowsTheKernel()
    {
        CMRootWorker root;
        CMNodes nodes(root.tree());
        NetworkNode node(&nodes, InterfaceClassifier());
        QCOMPARE(wired(), QString()); // Loopback is none of them.

        // The other end is down: e0 has no carrier, so that what must be checked for duplicates stays tentative.
        QVERIFY(ip("link add e0 address 02:00:00:00:00:01 type veth peer name e1\n"
                   "link set e1 addrgenmode none\nlink set e0 up\naddr add 192.0.2.1/24 dev e0\n"));
        QTRY_COMPARE(wired(), QString("e0 192.0.2.1/24"));
        QVERIFY(ip("addr add 2001:db8::1/64 dev e0 nodad\naddr add 2001:db8::2/64 dev e0\n"));
        QTRY_COMPARE(wired(), QString("e0 192.0.2.1/24 2001:db8::1/64"));
        QVERIFY(ip("addr change 2001:db8::1/64 dev e0 valid_lft 999 preferred_lft 0\n"
                   "addr add 10.0.0.9/8 dev e0\n"));
        QTRY_COMPARE(wired(), QString("e0 10.0.0.9/8 192.0.2.1/24 2001:db8::1/64")); // Deprecated, and still used.

        QVERIFY(ip("link set e1 up\n"));
        QTRY_COMPARE_WITH_TIMEOUT(
            wired(), QString("e0 10.0.0.9/8 192.0.2.1/24 2001:db8::1/64 2001:db8::2/64 fe80::ff:fe00:1/64"), 8000);

        QVERIFY(ip("link set e0 down\n"));
        QTRY_COMPARE(wired(), QString("e0")); // The kernel keeps the IPv4 addresses; nobody can reach them.
        QVERIFY(ip("link set e0 up\naddr del 10.0.0.9/8 dev e0\n"));
        QTRY_VERIFY(wired().startsWith("e0 192.0.2.1/24"));
        QVERIFY(ip("link del e0\n"));
        QTRY_COMPARE(wired(), QString());
        QVERIFY(ip("link add e0 type veth peer name e1\n"));
    }

    void interfacesAreToldApart()
    {
        QTemporaryDir sysfs;
        QVERIFY(QDir(sysfs.path()).mkpath("w0/phy80211"));
        QVERIFY(QDir(sysfs.path()).mkpath("w1/wireless"));
        QVERIFY(QDir(sysfs.path()).mkpath("guests/wireless"));
        // The reverse of the order that is told.
        QVERIFY(ip("link add w1 type veth peer name w0\nlink add uap0 type veth peer name guests\n"
                   "link add e1 type veth peer name e0\nlink add ap0 type veth peer name e2\n"));
        int host = 9;
        for (const char* name : { "w1", "w0", "uap0", "guests", "e1", "e0", "ap0", "e2" }) {
            const QString interface = QString::fromLatin1(name);
            QVERIFY(ip(QStringLiteral("link set %1 addrgenmode none\nlink set %1 up\naddr add 192.0.2.%2/32 dev %1\n")
                           .arg(interface)
                           .arg(host--)));
        }
        CMRootWorker root;
        CMNodes nodes(root.tree());
        NetworkNode node(&nodes, InterfaceClassifier({ "guests" }, sysfs.path()));

        const ZarkNetworkInfo info = ZarkValue(root.getValue(ZarkNetworkInfoPath())).networkInfo();
        QCOMPARE(describe(info.wired()), QString("e0 192.0.2.4/32 192.0.2.5/32 192.0.2.2/32"));
        QCOMPARE(describe(info.wireless()), QString("w0 192.0.2.8/32 192.0.2.9/32"));
        QStringList accessPoints;
        const QVariantList aps = info.softAp().aps();
        for (const QVariant& variant : aps)
            accessPoints.append(describe(ZarkNetworkInterface(variant)));
        const ZarkValue addresses(root.getValue(CMPath::fromEncoded(QStringLiteral("system:network/addresses"))));
        QCOMPARE(
            addresses.stringList(), QStringList({ "192.0.2.4", "192.0.2.5", "192.0.2.2", "192.0.2.8", "192.0.2.9" }));
        QCOMPARE(accessPoints, QStringList({ "ap0 192.0.2.3/32", "guests 192.0.2.6/32", "uap0 192.0.2.7/32" }));
        QVERIFY(ip("addr flush dev e0\n"));
        QTRY_COMPARE(wired(), QString("e1 192.0.2.5/32 192.0.2.2/32")); // Named by what can be reached.
        QVERIFY(ip("link del w0\nlink del uap0\nlink del ap0\n"));
    }

    void lostReportsCostNothing()
    {
        QVERIFY(ip("link add e0 type veth peer name e1\nlink set e0 up\n"));
        CMRootWorker root;
        CMNodes nodes(root.tree());
        NetworkNode node(&nodes, InterfaceClassifier());
        QString commands;
        for (int i = 0; i < 2000; ++i)
            commands += QStringLiteral("addr add 10.0.%1.%2/32 dev e0\n").arg(i / 200).arg(i % 200 + 1);
        QVERIFY(ip(commands)); // The event loop does not run meanwhile.
        QVERIFY(droppedReports() > 0);

        QTRY_COMPARE(wired().count(QLatin1Char('/')), 2000);
        QVERIFY(wired().endsWith(" 10.0.9.200/32"));
        QVERIFY(ip("addr flush dev e0\naddr add 192.0.2.1/24 dev e0\n"));
        QTRY_COMPARE(wired(), QString("e0 192.0.2.1/24"));
    }
};

NAMESPACE_TEST_MAIN(SystemNetworkTest)

#include "SystemNetworkTest.moc"
