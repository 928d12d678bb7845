#include <QtTest>

#include <csignal>

#include <sys/ioctl.h>
#include <unistd.h>

#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMStreamNode.h"
#include "PlayerWorker.h"
#include "SineWav.h"

namespace {

/// Reads `size` bytes in pieces, letting the event loop turn; `most` is the most that ever waited in the pipe.
QByteArray readSlowly(int fd, int size, int piece, int* most)
{
    QByteArray bytes;
    const QDeadlineTimer limit(10000);
    while (bytes.size() < size && !limit.hasExpired()) {
        // More turns of the event loop than an eager writer would need to fill memory.
        for (int turn = 0; turn < 8; ++turn)
            QCoreApplication::processEvents();
        int waiting = 0;
        ioctl(fd, FIONREAD, &waiting);
        *most = qMax(*most, waiting);
        QByteArray buffer(qMin(piece, size - bytes.size()), '\0');
        bytes += buffer.left(int(qMax<ssize_t>(0, read(fd, buffer.data(), size_t(buffer.size())))));
    }
    return bytes;
}

} // namespace

class PlayerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void fillsThePipeOnlyAsItIsRead()
    {
        signal(SIGPIPE, SIG_IGN);
        CMRootWorker root;
        const PlayerWorker worker({});
        const auto* audio = dynamic_cast<CMStreamNode*>(root.tree()->node(CMPath::fromEncoded("player:player/audio")));
        QVERIFY(audio);
        QCOMPARE(audio->mimeType(), QStringLiteral("audio/wav"));
        for (const int piece : { 777, 300000 }) { // Small odd ones; more than the pipe holds.
            const int size = 600000;
            const int fd = audio->openPipe();
            QVERIFY(fd >= 0);
            int most = 0;
            const QByteArray bytes = readSlowly(fd, size, piece, &most);
            close(fd);
            QVERIFY(bytes == SineWav(SineWav::Endless).bytes(0, size));
            QVERIFY2(most > 0 && most <= 256 * 1024, qPrintable(QString::number(most)));
        }
    }
};

QTEST_GUILESS_MAIN(PlayerTest)
#include "PlayerTest.moc"
