#include <QtTest>

#include <memory>
#include <unistd.h>

#include "CMNodes.h"
#include "CMNodesWorker.h"
#include "CMRoot.h"
#include "CMValueItem.h"
#include "Files.h"
#include "Rows.h"
#include "SystemNodes.h"
#include "SystemSample.h"

extern "C" CMNodesWorker* worker_create(const QVariantHash& arguments);

namespace {

CMPath path(const char* text)
{
    return CMPath::fromEncoded(QString::fromLatin1(text));
}

ZarkValue read(const char* text)
{
    return ZarkValue(CMRoot()->getValue(path(text)));
}

} // namespace

class SystemTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void processorShare()
    {
        Rows<QByteArray, QByteArray, double> row;
        const QByteArray zero = "cpu  0 0 0 0 0 0 0 0 0 0\ncpu0 1 2 3\n";
        row("idle and waiting are not busy", zero, "cpu  0 0 0 60 40 0 0 0 0 0\n", 0.0);
        row("guests are in user already", zero, "cpu  50 0 0 50 0 0 0 0 50 0\n", 50.0);
        row("waiting that steps back", "cpu  0 0 0 0 50 0 0 0 0 0\n", "cpu  60 0 0 0 0 0 0 0 0 0\n", 100.0);
        row("no tick", zero, zero, -1.0);
        row("unreadable", zero, {}, -1.0);
        for (const auto& [earlier, later, percent] : row) {
            const ProcessorTimes from = ProcessorTimes::fromProcStat(earlier);
            QCOMPARE(ProcessorTimes::fromProcStat(later).percentSince(from), percent);
        }
    }

    void valuesAreThisMachines()
    {
        CMRootWorker root;
        const std::unique_ptr<CMNodesWorker> worker(worker_create({}));
        QCOMPARE(read("system:memory/total").i64() >> 26, (sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE)) >> 26);
        const qint64 available = read("system:memory/available").i64();
        QVERIFY(available > 0 && available < read("system:memory/total").i64());
        const qint64 process = read("system:memory/process").i64();
        QVERIFY2(process > 1 << 20 && process < 1 << 30, QByteArray::number(process));

        const double uptime = contentOf("/proc/uptime").split(' ').first().toDouble();
        QVERIFY(qAbs(double(read("system:uptime/seconds").i64()) - uptime) <= 2);
        char name[256] = {};
        gethostname(name, sizeof name - 1);
        QCOMPARE(read("system:host/name").string(), QString::fromLocal8Bit(name));

        const double load = contentOf("/proc/loadavg").split(' ').at(2).toDouble();
        QVERIFY(qAbs(read("system:load/fifteen").double_() - load) < 0.2);
        const ZarkValue processor = read("system:load/cpu");
        QVERIFY(processor.type() == ZarkValueType::Double && processor.double_() > 0 && processor.double_() <= 100);
    }

    void watchingKeepsSampling()
    {
        CMRootWorker root;
        CMNodes nodes(root.tree());
        SystemNodes system(&nodes);
        auto now = std::make_unique<CMValueItem>(nullptr, path("system:time/now"));
        auto load = std::make_unique<CMValueItem>(nullptr, path("system:load/one"));
        QSignalSpy changes(now.get(), &CMValueItem::changed);

        QTRY_COMPARE_WITH_TIMEOUT(system.sampleCount(), 4, 5000);
        QVERIFY(changes.count() >= 3);
        const qint64 told = qvariant_cast<ZarkValue>(changes.last().first()).i64();
        QVERIFY(told - qvariant_cast<ZarkValue>(changes.first().first()).i64() >= 1900);
        read("system:host/name"); // What is watched is fresh for everybody.
        QCOMPARE(system.sampleCount(), 4);

        now.reset();
        QTRY_COMPARE_WITH_TIMEOUT(system.sampleCount(), 5, 2000); // Another one is watched still.
        load.reset();
        QTest::qWait(1300);
        QCOMPARE(system.sampleCount(), 5);
    }
};

QTEST_GUILESS_MAIN(SystemTest)
#include "SystemTest.moc"
