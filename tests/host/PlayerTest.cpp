#include <QtEndian>
#include <QtTest>

#include <cmath>
#include <csignal>

#include <sys/ioctl.h>
#include <unistd.h>

#include "CMListNode.h"
#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMStreamNode.h"
#include "CMValueNode.h"
#include "PlayerWorker.h"
#include "SineWav.h"
#include "ZarkJson.h"

namespace {

CMPath pathOf(const QString& name)
{
    return CMPath::fromEncoded(QStringLiteral("player:player/") + name);
}

ZarkValue valueOf(const QString& name)
{
    return ZarkValue(CMRoot()->getValue(pathOf(name)));
}

/// What a client's write answers: the plain value, or the error's name.
QVariant invoke(const QString& name, const QVariant& argument)
{
    QVariant result;
    QObject receiver;
    CMReply<QVariant> reply;
    reply.onFinished(&receiver, [&result](const QVariant& value, const CMError& error) {
        result = error.isEmpty() ? ZarkValue(value).plain() : error.name();
    });
    CMRoot()->invoke(pathOf(name), argument, QStringLiteral("value"), reply);
    const QDeadlineTimer limit(5000);
    while (!result.isValid() && !limit.hasExpired())
        QCoreApplication::processEvents();
    return result;
}

QVariant json(const char* text)
{
    return ZarkJson::parse(QByteArray(text), nullptr);
}

QVector<QVariantHash> makeTracks(const QString& titles, qint64 durationMs)
{
    QVector<QVariantHash> tracks;
    for (QChar title : titles)
        tracks.append(Playlist::makeTrack(title, QStringLiteral("Artist"), durationMs));
    return tracks;
}

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
    void initTestCase() { signal(SIGPIPE, SIG_IGN); }
    void init()
    {
        m_root.reset(new CMRootWorker);
        m_worker.reset(new PlayerWorker({}));
        QVERIFY(m_worker->isComplete());
    }
    void cleanup()
    {
        m_worker.reset();
        m_root.reset();
    }

    void obeysCommands_data();
    void obeysCommands();
    void showsTheDemosPlaylist();
    void changesThePlaylist_data();
    void changesThePlaylist();
    void refusesAPathThatIsTaken();
    void advancesWhilePlayingAndGoesOnToTheNextTrack();
    void startsTheSuccessorOfARemovedTrack();
    void writesAWavHeaderAndASine();
    void fillsThePipeOnlyAsItIsRead_data();
    void fillsThePipeOnlyAsItIsRead();
    void endsWhenTheReaderCloses();

private:
    template <class Node> Node* node(const QString& name) const
    {
        return dynamic_cast<Node*>(m_root->tree()->node(pathOf(name)));
    }

    QScopedPointer<CMRootWorker> m_root;
    QScopedPointer<PlayerWorker> m_worker;
};

void PlayerTest::obeysCommands_data()
{
    QTest::addColumn<QString>("commands");
    QTest::addColumn<QString>("answers");
    QTest::addColumn<QString>("track");
    const auto row = [](const char* name, const char* commands, const char* answers, int number) {
        QTest::newRow(name) << QString::fromLatin1(commands) << QString::fromLatin1(answers)
                            << QStringLiteral("No. %1").arg(number);
    };
    row("play and pause", "play pause play", "playing paused playing", 1);
    row("stop", "play stop", "playing stopped", 1);
    row("pause while stopped", "pause", "stopped", 1);
    row("next while stopped", "next next", "stopped stopped", 3);
    row("next while paused", "play pause next", "playing paused paused", 2);
    row("previous goes around", "previous", "stopped", 500);
    row("next goes around", "previous next play", "stopped stopped playing", 1);
    row("unknown", "play rewind", "playing notAnOption", 1);
    row("another case", "Play", "notAnOption", 1);
}

void PlayerTest::obeysCommands()
{
    QFETCH(QString, commands);
    QFETCH(QString, answers);
    QFETCH(QString, track);
    QStringList answered;
    const QStringList list = commands.split(QLatin1Char(' '));
    for (const QString& command : list)
        answered.append(invoke(QStringLiteral("control"), command).toString());
    QCOMPARE(answered.join(QLatin1Char(' ')), answers);
    QVERIFY(valueOf(QStringLiteral("track")).string().endsWith(track));
    QCOMPARE(invoke(QStringLiteral("control"), 7), QVariant(QStringLiteral("invalidType")));
    QCOMPARE(invoke(QStringLiteral("state"), QStringLiteral("playing")), QVariant(QStringLiteral("notModifiable")));
}

void PlayerTest::showsTheDemosPlaylist()
{
    const CMListNode* playlist = node<CMListNode>(QStringLiteral("playlist"));
    QCOMPARE(playlist->rowsCount(), 500);
    QSet<QString> titles;
    for (int i = 0; i < 500; ++i) {
        const QVariantHash row = playlist->row(i);
        const qint64 duration = ZarkValue(row.value(QStringLiteral("value"))).i64();
        QVERIFY2(duration >= 120000 && duration < 300000, qPrintable(QString::number(duration)));
        titles.insert(row.value(QStringLiteral("title")).toString());
    }
    QCOMPARE(titles.size(), 500);
}

void PlayerTest::changesThePlaylist_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("argument");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("titles"); // The current track is in brackets; C at first.
    const auto row = [](const char* name, const char* command, const char* argument, const char* error,
                         const char* titles) {
        QTest::newRow(name) << QString::fromLatin1(command) << QByteArray(argument) << QString::fromLatin1(error)
                            << QString::fromLatin1(titles);
    };
    const char* same = "AB[C]DE";
    row("insert before", "insert", R"({"index": 0, "title": "X"})", "", "XAB[C]DE");
    row("insert at the current row", "insert", R"({"index": 2, "title": "X"})", "", "ABX[C]DE");
    row("insert behind", "insert", R"({"index": 3, "title": "X"})", "", "AB[C]XDE");
    row("insert at the end", "insert", R"({"index": 5, "title": "X"})", "", "AB[C]DEX");
    row("insert beyond the end", "insert", R"({"index": 6, "title": "X"})", "outOfRange", same);
    row("insert below 0", "insert", R"({"index": -1, "title": "X"})", "outOfRange", same);
    row("insert beyond an int", "insert", R"({"index": 4294967296, "title": "X"})", "outOfRange", same);
    row("insert without title", "insert", R"({"index": 0})", "invalidType", same);
    row("insert an empty title", "insert", R"({"index": 0, "title": " "})", "invalidType", same);
    row("insert a number as title", "insert", R"({"index": 0, "title": 4})", "invalidType", same);
    row("insert no object", "insert", R"("X")", "invalidType", same);
    row("remove before", "remove", R"({"index": 1})", "", "A[C]DE");
    row("remove the current row", "remove", R"({"index": 2})", "", "AB[D]E");
    row("remove behind", "remove", R"({"index": 4})", "", "AB[C]D");
    row("remove beyond the end", "remove", R"({"index": 5})", "outOfRange", same);
    row("remove a text", "remove", R"({"index": "1"})", "invalidType", same);
    row("remove a fraction", "remove", R"({"index": 1.5})", "invalidType", same);
    row("remove with an unknown key", "remove", R"({"index": 1, "indx": 2})", "invalidType", same);
    row("move the current row up", "move", R"({"index": 2, "toIndex": 0})", "", "[C]ABDE");
    row("move the current row down", "move", R"({"index": 2, "toIndex": 4})", "", "ABDE[C]");
    row("move across, down", "move", R"({"index": 0, "toIndex": 2})", "", "B[C]ADE");
    row("move across, up", "move", R"({"index": 4, "toIndex": 2})", "", "ABE[C]D");
    row("move before", "move", R"({"index": 0, "toIndex": 1})", "", "BA[C]DE");
    row("move behind", "move", R"({"index": 4, "toIndex": 3})", "", "AB[C]ED");
    row("move nowhere", "move", R"({"index": 2, "toIndex": 2})", "", same);
    row("move beyond the end", "move", R"({"index": 0, "toIndex": 5})", "outOfRange", same);
    row("move without target", "move", R"({"index": 0})", "invalidType", same);
}

void PlayerTest::changesThePlaylist()
{
    QFETCH(QString, command);
    QFETCH(QByteArray, argument);
    QFETCH(QString, error);
    QFETCH(QString, titles);
    CMNodes nodes(m_root->tree());
    CMListNode* list = CMListNode::create(&nodes, CMPath::fromEncoded(QStringLiteral("test:list")));
    Playlist playlist(list);
    playlist.setTracks(makeTracks(QStringLiteral("ABCDE"), 1000));
    playlist.step(2);
    const auto change = command == QLatin1String("insert") ? &Playlist::insert
        : command == QLatin1String("remove")               ? &Playlist::remove
                                                           : &Playlist::move;
    const CMError failure = (playlist.*change)(json(argument.constData()));
    QCOMPARE(failure.name(), error);
    QCOMPARE(failure.message().isEmpty(), error.isEmpty());
    QString shown;
    for (int i = 0; i < list->rowsCount(); ++i) {
        const QString title = list->row(i).value(QStringLiteral("title")).toString();
        shown += i == playlist.current() ? QLatin1Char('[') + title + QLatin1Char(']') : title;
    }
    QCOMPARE(shown, titles);
}

void PlayerTest::refusesAPathThatIsTaken()
{
    m_worker.reset();
    CMNodes nodes(m_root->tree());
    QVERIFY(CMUINode::create(&nodes, pathOf(QStringLiteral("audio"))));
    QVERIFY(!PlayerWorker({}).isComplete());
}

void PlayerTest::advancesWhilePlayingAndGoesOnToTheNextTrack()
{
    CMNodes nodes(m_root->tree());
    const auto create = [&nodes](const QString& name, const ZarkValue& initial) {
        return CMValueNode::create(&nodes, CMPath::fromEncoded(QStringLiteral("test:") + name), initial);
    };
    const Player::Nodes shown{ create(QStringLiteral("state"), ZarkValue::fromString({})),
        create(QStringLiteral("position"), ZarkValue::fromI64(0)),
        create(QStringLiteral("track"), ZarkValue::fromString({})) };
    Playlist playlist(CMListNode::create(&nodes, CMPath::fromEncoded(QStringLiteral("test:list"))));
    playlist.setTracks(makeTracks(QStringLiteral("AB"), 1500));
    Player player(&playlist, shown);
    QVERIFY(player.control(QStringLiteral("play")).isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(shown.position->value().i64() > 0, 3000);
    const qint64 first = shown.position->value().i64();
    QVERIFY2(first >= 990 && first < 1500, qPrintable(QString::number(first)));
    QTRY_COMPARE_WITH_TIMEOUT(shown.track->value().string(), QStringLiteral("B"), 3000);
    const qint64 second = shown.position->value().i64();
    QVERIFY2(second >= 400 && second < 1500, qPrintable(QString::number(second)));

    QVERIFY(player.control(QStringLiteral("pause")).isEmpty());
    const qint64 paused = shown.position->value().i64();
    QVERIFY(paused >= second);
    QTest::qWait(1100);
    QCOMPARE(shown.position->value().i64(), paused);
    QCOMPARE(playlist.currentTitle(), QStringLiteral("B"));
}

void PlayerTest::startsTheSuccessorOfARemovedTrack()
{
    invoke(QStringLiteral("control"), QStringLiteral("play"));
    QTRY_VERIFY_WITH_TIMEOUT(valueOf(QStringLiteral("position")).i64() > 0, 3000);
    QCOMPARE(invoke(QStringLiteral("playlistInsert"), json(R"({"index": 0, "title": "X"})")).toInt(), 501);
    QVERIFY(valueOf(QStringLiteral("position")).i64() > 0);
    QVERIFY(valueOf(QStringLiteral("track")).string().endsWith(QLatin1String("No. 1")));

    QCOMPARE(invoke(QStringLiteral("playlistRemove"), json(R"({"index": 1})")).toInt(), 500);
    QVERIFY(valueOf(QStringLiteral("track")).string().endsWith(QLatin1String("No. 2")));
    QCOMPARE(valueOf(QStringLiteral("position")).i64(), 0);
    QCOMPARE(valueOf(QStringLiteral("state")).string(), QStringLiteral("playing"));

    for (int row = 499; row >= 0; --row)
        invoke(QStringLiteral("playlistRemove"), QVariantHash{ { QStringLiteral("index"), qlonglong(row) } });
    QCOMPARE(valueOf(QStringLiteral("state")).string(), QStringLiteral("stopped"));
    QCOMPARE(valueOf(QStringLiteral("track")).string(), QString());
    QCOMPARE(invoke(QStringLiteral("control"), QStringLiteral("play")), QVariant(QStringLiteral("failed")));
    invoke(QStringLiteral("playlistInsert"), json(R"({"index": 0, "title": "Only"})"));
    QCOMPARE(valueOf(QStringLiteral("track")).string(), QStringLiteral("Only"));
    QCOMPARE(invoke(QStringLiteral("control"), QStringLiteral("next")), QVariant(QStringLiteral("stopped")));
}

void PlayerTest::writesAWavHeaderAndASine()
{
    const SineWav wav(3600);
    const QByteArray head = wav.bytes(0, 44);
    // RIFF <file - 8> WAVE, fmt <16>: PCM, mono, 44100 Hz, 88200 bytes/s, 2 bytes a frame, 16 bits; data <an hour>.
    QCOMPARE(head.toHex(' '),
        QByteArray("52 49 46 46 a4 f8 ec 12 57 41 56 45 66 6d 74 20 10 00 00 00 01 00 01 00 "
                   "44 ac 00 00 88 58 01 00 02 00 10 00 64 61 74 61 80 f8 ec 12"));
    QCOMPARE(wav.size(), qint64(44 + 3600 * 44100 * 2));
    const QByteArray samples = wav.bytes(44, 2 * 44100);
    for (int i = 0; i < 44100; ++i) {
        const int sample = qFromLittleEndian<qint16>(samples.constData() + 2 * i);
        QVERIFY2(std::abs(sample - 8192 * std::sin(2 * M_PI * 441 * i / 44100.0)) < 2, qPrintable(QString::number(i)));
    }
    QCOMPARE(wav.bytes(wav.size() - 10, 4096).size(), 10);
    QCOMPARE(wav.bytes(wav.size(), 4096).size(), 0);
}

void PlayerTest::fillsThePipeOnlyAsItIsRead_data()
{
    QTest::addColumn<int>("piece");
    QTest::newRow("small odd pieces") << 777;
    QTest::newRow("more than the pipe holds") << 65536;
}

void PlayerTest::fillsThePipeOnlyAsItIsRead()
{
    QFETCH(int, piece);
    const int size = 200000;
    const CMStreamNode* audio = node<CMStreamNode>(QStringLiteral("audio"));
    QCOMPARE(audio->mimeType(), QStringLiteral("audio/wav"));
    const int fd = audio->openPipe();
    QVERIFY(fd >= 0);
    int most = 0;
    const QByteArray bytes = readSlowly(fd, size, piece, &most);
    close(fd);
    QVERIFY(bytes == SineWav(3600).bytes(0, size));
    QVERIFY2(most > 0 && most <= 16384, qPrintable(QString::number(most)));
}

void PlayerTest::endsWhenTheReaderCloses()
{
    ToneStreams streams;
    const int first = streams.open();
    const int second = streams.open();
    QCOMPARE(streams.count(), 2);
    // One with a pipe that is full, one that has not been written to yet.
    QTest::qWait(20);
    const int third = streams.open();
    close(first);
    close(third);
    QTRY_COMPARE(streams.count(), 1);
    int most = 0;
    QCOMPARE(readSlowly(second, 50000, 4096, &most).size(), 50000);
    close(second);
    QTRY_COMPARE(streams.count(), 0);
}

QTEST_GUILESS_MAIN(PlayerTest)
#include "PlayerTest.moc"
