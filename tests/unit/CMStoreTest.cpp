#include <QtTest>

#include <csignal>

#include <sys/resource.h>
#include <sys/stat.h>

#include "Answer.h"
#include "CMNodeTree.h"
#include "CMNodes.h"
#include "CMRoot.h"
#include "CMStore.h"
#include "CMValueNode.h"
#include "Files.h"
#include "Rows.h"

namespace {

CMPath numbered(int index)
{
    return CMPath::fromSegments("a", { QString::number(index) });
}

struct OpenStore : CMStore {
    explicit OpenStore(const QString& file)
    {
        QString error;
        if (!open(file, &error))
            qFatal("%s", qPrintable(error));
    }
};

/// As long as it lives, no file can grow beyond `bytes`: a disk that is full, for this process.
class FullDisk {
public:
    explicit FullDisk(rlim_t bytes)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        const struct rlimit tight {
            bytes, m_before.rlim_max
        };
        ::setrlimit(RLIMIT_FSIZE, &tight);
    }
    ~FullDisk() { ::setrlimit(RLIMIT_FSIZE, &m_before); }

private:
    struct rlimit m_before { };
};

} // namespace

class CMStoreTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_file = m_dir->filePath("state.db");
        m_error.clear();
    }

    void valuesSurviveARestart()
    {
        const QList<ZarkValue> values{ ZarkValue::fromI64(std::numeric_limits<qint64>::min()),
            ZarkValue::fromDouble(0.1), ZarkValue::fromBytes(QByteArray("\0\xff", 2)),
            ZarkValue::fromStringList({ "", "\n" }), ZarkValue::fromAuthMode(ZarkWebserverAuthMode::Writes),
            ZarkValue::fromString(QString(QChar(0))) };
        {
            OpenStore store(m_file);
            for (int i = 0; i < values.size(); ++i) // The last ones still wait when the store goes.
                store.write(numbered(i), values.at(i), {});
        }
        OpenStore store(m_file);
        for (int i = 0; i < values.size(); ++i)
            QCOMPARE(store.value(numbered(i)), values.at(i));
        QVERIFY(!store.value(numbered(99)).isValid());
    }

    void filesAreTheOwnersAlone()
    {
        replace({});
        QVERIFY(QFile::setPermissions(m_file, QFileDevice::Permissions(0x7777)));
        OpenStore store(m_file);
        QCOMPARE(write(store, 1, ZarkValue::fromI32(1)), QString());
        const QStringList names = QDir(m_dir->path()).entryList(QDir::Files);
        QVERIFY(names.contains("state.db-wal"));
        for (const QString& name : names) {
            struct stat status { };
            QCOMPARE(::stat(QFile::encodeName(m_dir->filePath(name)).constData(), &status), 0);
            QVERIFY2((status.st_mode & 0777) == 0600, qPrintable(name));
        }
    }

    void answersKeepTheirOrder()
    {
        OpenStore store(m_file);
        QList<int> order;
        QList<int> expected;
        for (int i = 0; i < 200; ++i) {
            CMVoidReply reply;
            reply.onFinished(this, [&order, &store, i](const CMError& error) {
                if (error.isEmpty() && store.value(numbered(0)).i32() >= i)
                    order.append(i);
            });
            store.write(numbered(0), ZarkValue::fromI32(i), reply);
            expected.append(i);
            if (i % 50 == 0)
                QTest::qWait(1);
        }
        QTRY_COMPARE(order, expected);
        QCOMPARE(store.value(numbered(0)).i32(), 199);
    }

    void damageIsSetAside()
    {
        Rows<int, int, bool> row; // What is left of the file, where garbage starts, whether a journal of it is there.
        row("garbage header", -1, 0, false);
        row("garbage page", -1, 4096, false);
        row("half a file", 8192, -1, true);
        row("emptied under its journal", 0, -1, true);
        for (const auto& [size, garbageFrom, journal] : row) {
            init();
            fill(100);
            QByteArray bytes = read().left(size < 0 ? INT_MAX : size);
            if (garbageFrom >= 0)
                bytes.replace(garbageFrom, 2048, QByteArray(2048, '\xa5'));
            replace(bytes);
            if (journal)
                writeFile(m_file + "-wal", QByteArray(9000, 'j'));
            {
                OpenStore store(m_file);
                QVERIFY(m_error.isEmpty());
                QVERIFY(!store.value(numbered(1)).isValid());
                QCOMPARE(write(store, 1, ZarkValue::fromI32(5)), QString());
            }
            const QStringList aside = QDir(m_dir->path()).entryList({ "state.db.damaged-????????T??????Z" });
            QCOMPARE(aside.size(), 1);
            QCOMPARE(contentOf(m_dir->filePath(aside.first())), bytes);
            OpenStore again(m_file);
            QCOMPARE(again.value(numbered(1)).i32(), 5);
        }
    }

    void foreignDatabasesAreLeftAlone()
    {
        fill(1);
        QByteArray bytes = read();
        bytes[68] = char(bytes.at(68) + 1); // The application id.
        replace(bytes);
        CMStore store;
        QVERIFY(!store.open(m_file, &m_error));
        QCOMPARE(m_error, m_file + ": a database of another program.");
        QCOMPARE(read(), bytes);
    }

    void aSecondHostIsRefused()
    {
        {
            OpenStore first(m_file);
            CMStore second;
            QVERIFY(!second.open(m_file, &m_error));
            QCOMPARE(m_error, m_file + ": in use by another host.");
            QCOMPARE(write(second, 1, ZarkValue::fromI32(1)), QString(CMError::StoreFailed));
            QCOMPARE(write(first, 1, ZarkValue::fromI32(1)), QString());
        }
        OpenStore third(m_file);
        CMStore nowhere;
        QVERIFY(!nowhere.open("/nowhere/state.db", &m_error));
        QVERIFY2(m_error.startsWith("/nowhere/state.db"), qPrintable(m_error));
    }

    void aFullDiskFailsTheWriteAlone()
    {
        OpenStore store(m_file);
        QCOMPARE(write(store, 1, ZarkValue::fromI32(1)), QString());
        auto disk = std::make_unique<FullDisk>(96 * 1024);
        CMVoidReply large;
        CMVoidReply small;
        store.write(numbered(1), ZarkValue::fromString(QString(1 << 20, 'x')), large);
        store.write(numbered(2), ZarkValue::fromI32(2), small); // In one batch with the large one, or after it.
        const QString largeError = errorOf(large);
        const QString smallError = errorOf(small);
        disk.reset();
        QCOMPARE(largeError, QString(CMError::StoreFailed));
        QCOMPARE(smallError, QString());
        QCOMPARE(store.value(numbered(1)).i32(), 1);
        QCOMPARE(write(store, 1, ZarkValue::fromString(QString(1 << 20, 'x'))), QString());
    }

    void aFullDiskDoesNotPreventAStart()
    {
        Rows<int, bool> row;
        row("no room for the shared index", 16384, true);
        row("no room at all", 0, true);
        row("no database yet", 0, false);
        for (const auto& [bytes, stored] : row) {
            init();
            if (stored)
                fill(1);
            auto disk = std::make_unique<FullDisk>(rlim_t(bytes));
            OpenStore store(m_file);
            QCOMPARE(store.value(numbered(0)).isValid(), stored);
            CMVoidReply refused;
            store.write(numbered(1), ZarkValue::fromString(QString(20000, 'x')), refused);
            CMError error;
            refused.onFinished(this, [&error](const CMError& failure) { error = failure; });
            QTRY_COMPARE(error.name(), QString(CMError::StoreFailed));
            QVERIFY2(error.message().source().contains("the disk at /"), qPrintable(error.message().source()));
            disk.reset();
            QCOMPARE(write(store, 1, ZarkValue::fromI32(1)), QString());
        }
    }

    void everySubsetOfTheFilesIsAStart()
    {
        const QStringList suffixes{ "", "-wal", "-shm", ".lock", ".damaged-20200101T000000Z" };
        fill(30);
        OpenStore running(m_file);
        QCOMPARE(write(running, 30, ZarkValue::fromI32(30)), QString());
        for (int subset = 0; subset < 1 << suffixes.size(); ++subset) {
            const QTemporaryDir killed;
            const QString file = killed.filePath("state.db");
            for (int i = 0; i < suffixes.size(); ++i) {
                if ((subset >> i & 1) != 0 && QFile::exists(m_file + suffixes.at(i)))
                    QVERIFY(QFile::copy(m_file + suffixes.at(i), file + suffixes.at(i)));
            }
            OpenStore store(file);
            QCOMPARE(store.value(numbered(29)).isValid(), (subset & 1) != 0);
            QCOMPARE(store.value(numbered(30)).isValid(), (subset & 3) == 3);
            QCOMPARE(write(store, 1, ZarkValue::fromI32(5)), QString());
        }
    }

    void storedValuesKeepToThePresentBounds()
    {
        Rows<ZarkValue, int> row;
        row("within", ZarkValue::fromI32(8), 8);
        row("above the maximum", ZarkValue::fromI32(10), 7);
        row("of another type", ZarkValue::fromI64(8), 7);
        for (const auto& [stored, value] : row) {
            init();
            OpenStore store(m_file);
            QCOMPARE(write(store, 1, stored), QString());
            CMRootWorker root(&store);
            CMNodes nodes(root.tree());
            auto* const node = CMValueNode::create(&nodes, numbered(1), ZarkValue::fromI32(7), CMValueNode::Persistent);
            node->setEdit({ { "maximum", 9 } });
            QCOMPARE(int(node->value().i32()), value);
        }
    }

    void nodesChangeAfterTheCommit()
    {
        const CMPath path = CMPath::fromEncoded("a:b");
        const auto make = [&path](CMNodes* nodes) {
            return CMValueNode::create(nodes, path, ZarkValue::fromI32(0), CMValueNode::Persistent);
        };
        {
            OpenStore store(m_file);
            CMRootWorker root(&store);
            CMNodes nodes(root.tree());
            CMValueNode* const node = make(&nodes);
            QList<int> hooks;
            node->setChangeHook([&](const ZarkValue& value) {
                hooks.append(store.value(path) == value || hooks.isEmpty() ? value.i32() : -1);
            });
            CMVoidReply first;
            CMVoidReply second;
            node->set(ZarkValue::fromI32(1), first);
            node->set(ZarkValue::fromI32(2), second);
            QCOMPARE(node->value().i32(), 0);
            QCOMPARE(errorOf(second), QString());
            QVERIFY(first.isFinished());
            QCOMPARE(hooks, QList<int>({ 1, 2 }));
            QVERIFY(node->override_(ZarkValue::fromI32(3)).isEmpty());
            QVERIFY(node->setMeasured(ZarkValue::fromI32(4)));
            CMVoidReply orphan;
            node->set(ZarkValue::fromI32(5), orphan);
            nodes.destroy(node);
            QCOMPARE(errorOf(orphan), QString());
        }
        OpenStore store(m_file);
        CMRootWorker root(&store);
        CMNodes nodes(root.tree());
        QCOMPARE(make(&nodes)->value().i32(), 5);
    }

private:
    QString write(CMStore& store, int index, const ZarkValue& value)
    {
        CMVoidReply reply;
        store.write(numbered(index), value, reply);
        return errorOf(reply);
    }
    void fill(int count)
    {
        OpenStore store(m_file);
        for (int i = 0; i < count; ++i)
            store.write(numbered(i), ZarkValue::fromString(QString(500, 'x')), {});
    }
    QByteArray read() const { return contentOf(m_file); }
    void replace(const QByteArray& bytes) const { writeFile(m_file, bytes); }

    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_file;
    QString m_error;
};

QTEST_GUILESS_MAIN(CMStoreTest)
#include "CMStoreTest.moc"
