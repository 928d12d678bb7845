#include <QtTest>

#include <thread>
#include <vector>

#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

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
        QFile file(m_directory->filePath("file"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(Size, '\1'));
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

    void cutsItsReaderFirst()
    {
        int sockets[2];
        QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
        const auto mapping = map();
        const GuardedMapping::Sending sending(mapping, sockets[0]);
        truncate(path("file").constData(), 0);
        // What user-space encryption does: read the file, then write what it made of it.
        const char byte = mapping->data()[Size - 1];
        QCOMPARE(byte, '\0');
        QCOMPARE(send(sockets[0], &byte, 1, MSG_NOSIGNAL), -1);
        char received = 0;
        QCOMPARE(recv(sockets[1], &received, 1, 0), 0);
        close(sockets[0]);
        close(sockets[1]);
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

    void looksBeforeItOpens()
    {
        Rows<int, bool> row;
        row("file", LocalFile::Regular, true);
        row("fifo", LocalFile::Special, false);
        row("link", LocalFile::Regular, true);
        row("device", LocalFile::Special, false);
        row("directory", LocalFile::Directory, false);
        row("nothing", LocalFile::Missing, false);
        row("dangling", LocalFile::Missing, false);
        row("loop", LocalFile::Missing, false);
        for (const auto& [kind, isOpen] : row) {
            mkfifo(path("fifo").constData(), 0600);
            mkdir(path("directory").constData(), 0700);
            symlink("file", path("link").constData());
            symlink("/dev/null", path("device").constData());
            symlink("absent", path("dangling").constData());
            symlink("loop", path("loop").constData());
            const LocalFile file(path(row.name()));
            QCOMPARE(int(file.kind()), kind);
            QCOMPARE(file.descriptor() >= 0, isOpen);
            QCOMPARE(file.canonicalPath().isEmpty(), kind == LocalFile::Missing);
            if (row.name() == QByteArray("link"))
                QCOMPARE(file.canonicalPath(),
                    QFile::encodeName(QFileInfo(m_directory->filePath("file")).canonicalFilePath()));
            QCOMPARE(int(LocalFile(path("file") + '\0' + ".png").kind()), int(LocalFile::Missing));
        }
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
