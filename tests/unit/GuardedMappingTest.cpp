#include <QtTest>

#include <thread>
#include <vector>

#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Files.h"
#include "GuardedMapping.h"
#include "LocalFile.h"
#include "Rows.h"

namespace {

constexpr int Size = 1024 * 1024;
constexpr int EarlierHandler = 42;

int sum(const GuardedMapping& mapping)
{
    int result = 0;
    for (gsize i = 0; i < mapping.length(); i += 512)
        result += mapping.data()[i];
    return result;
}

} // namespace

class GuardedMappingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // Before the first mapping, which remembers it.
        signal(SIGBUS, [](int) { _exit(EarlierHandler); });
    }

    void init()
    {
        m_directory = std::make_unique<QTemporaryDir>();
        writeFile(m_directory->filePath("file"), QByteArray(Size, '\1'));
    }

    void outlivesTheFile()
    {
        Rows<int, bool, int> row;
        row("untouched", Size, false, Size / 512);
        row("emptied", 0, true, 0);
        row("halved", Size / 2, true, Size / 1024);
        row("grown", 2 * Size, false, Size / 512);
        row("removed", -1, false, Size / 512);
        for (const auto& [newSize, damaged, result] : row) {
            init();
            const auto mapping = map();
            QVERIFY(mapping);
            QCOMPARE(newSize < 0 ? unlink(path("file").constData()) : truncate(path("file").constData(), newSize), 0);
            QCOMPARE(sum(*mapping), result);
            QCOMPARE(mapping->isDamaged(), damaged);
        }
    }

    void readersOnManyThreadsSurvive()
    {
        std::vector<std::shared_ptr<GuardedMapping>> mappings;
        std::vector<std::thread> threads;
        mappings.reserve(8);
        threads.reserve(16);
        for (int i = 0; i < 8; ++i)
            mappings.push_back(map());
        truncate(path("file").constData(), 0);
        for (int i = 0; i < 16; ++i)
            threads.emplace_back([&, i] { sum(*mappings[i % 8]); });
        for (std::thread& thread : threads)
            thread.join();
        for (const auto& mapping : mappings)
            QVERIFY(mapping->isDamaged());
        // A slot that is used again starts afresh.
        mappings.clear();
        truncate(path("file").constData(), Size);
        QVERIFY(!map()->isDamaged());
    }

    void leavesOtherFaultsAlone()
    {
        const auto mapping = map(); // The handler is there.
        const int fd = open(path("file").constData(), O_RDONLY);
        const pid_t child = fork();
        if (child == 0) {
            const auto* bytes = static_cast<const volatile char*>(mmap(nullptr, Size, PROT_READ, MAP_PRIVATE, fd, 0));
            truncate(path("file").constData(), 0);
            _exit(bytes[Size - 1]);
        }
        int status = 0;
        QCOMPARE(waitpid(child, &status, 0), child);
        close(fd);
        QVERIFY2(WIFEXITED(status) && WEXITSTATUS(status) == EarlierHandler, QByteArray::number(status));
    }

    // Opening alone makes some devices act.
    void looksBeforeItOpens()
    {
        QCOMPARE(mkfifo(path("fifo").constData(), 0600), 0);
        const LocalFile file(path("fifo"));
        QCOMPARE(int(file.kind()), int(LocalFile::Special));
        QCOMPARE(file.descriptor(), -1);
    }

private:
    QByteArray path(const char* name) const { return QFile::encodeName(m_directory->filePath(name)); }
    std::shared_ptr<GuardedMapping> map() const
    {
        const LocalFile file(path("file"));
        return GuardedMapping::map(file.descriptor(), nullptr);
    }

    std::unique_ptr<QTemporaryDir> m_directory;
};

QTEST_APPLESS_MAIN(GuardedMappingTest)
#include "GuardedMappingTest.moc"
