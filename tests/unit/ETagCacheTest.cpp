#include <QDateTime>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <unistd.h>

#include "CacheEntryBuilder.h"
#include "GuardedMapping.h"
#include "LocalFile.h"
#include "StaticHandler.h"

namespace {

const QString EmptyDigest = QStringLiteral("d41d8cd98f00b204e9800998ecf8427e");
const QString Marked = QStringLiteral("application/x-marked");

} // namespace

class ETagCacheTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_directory.isValid()); }
    void digests_data();
    void digests();
    void rebuildsOutdatedEntries_data();
    void rebuildsOutdatedEntries();
    void keepsTheTwoHundredOfLastUse();
    void followsTheNameAndNotTheFile();
    void typesByContentThenExtension_data();
    void typesByContentThenExtension();
    void largeFilesAreReadOnceForAll();
    void largeFilesTakeTurns();
    void tellsOfAFileThatShrank();

private:
    QString write(const QString& name, const QByteArray& content)
    {
        QFile file(m_directory.filePath(name));
        file.open(QIODevice::WriteOnly);
        file.write(content);
        return file.fileName();
    }
    static StaticHandler::ETagCacheEntry entry(const QString& path)
    {
        GMappedFile* mapping = g_mapped_file_new(QFile::encodeName(path).constData(), FALSE, nullptr);
        const auto result = StaticHandler::getCacheEntry(QFileInfo(path), mapping);
        g_mapped_file_unref(mapping);
        return result;
    }
    /// Replaces what is cached, so that a rebuilt entry shows.
    static void mark(const QString& path)
    {
        auto marked = entry(path);
        marked.contentType = Marked;
        ETagCache::instance().insert(path, marked);
    }
    static bool isCached(const QString& path) { return entry(path).contentType == Marked; }
    static void build(const QString& path, const CacheEntryBuilder::Built& built)
    {
        const LocalFile file(QFile::encodeName(path));
        CacheEntryBuilder::instance().build(
            QFileInfo(path), file.lastModified(), GuardedMapping::map(file.descriptor(), nullptr), built);
    }

    QTemporaryDir m_directory;
};

void ETagCacheTest::digests_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("etag");
    QTest::newRow("empty") << QByteArray() << EmptyDigest;
    QTest::newRow("abc") << QByteArray("abc") << QStringLiteral("900150983cd24fb0d6963f7d28e17f72");
    QTest::newRow("with a NUL") << QByteArray("a\0b", 3) << QStringLiteral("70350f6027bce3713f6b76473084309b");
}

void ETagCacheTest::digests()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, etag);
    const auto made = entry(write(QTest::currentDataTag(), content));
    QCOMPARE(made.etag, etag);
    QCOMPARE(made.size, quint64(content.size()));
    QCOMPARE(StaticHandler::calculateETag(QFileInfo(m_directory.path()), "abc", 3), QString());
}

void ETagCacheTest::rebuildsOutdatedEntries_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("laterMs");
    QTest::addColumn<bool>("kept");
    QTest::newRow("unchanged") << QByteArray("12345") << 0 << true;
    QTest::newRow("other time") << QByteArray("54321") << 1 << false;
    QTest::newRow("earlier") << QByteArray("54321") << -5000 << false;
    QTest::newRow("other size") << QByteArray("123456") << 0 << false;
    // By design: as long as size and time are the same, the content is.
    QTest::newRow("other content") << QByteArray("54321") << 0 << true;
}

void ETagCacheTest::rebuildsOutdatedEntries()
{
    QFETCH(QByteArray, content);
    QFETCH(int, laterMs);
    QFETCH(bool, kept);
    const QDateTime time = QDateTime::fromSecsSinceEpoch(1700000000);
    const auto rewrite = [&](const QByteArray& text, const QDateTime& modified) {
        const QString path = write("changing", text);
        QFile file(path);
        file.open(QIODevice::ReadWrite);
        file.setFileTime(modified, QFileDevice::FileModificationTime);
        return path;
    };
    const QString path = rewrite("12345", time);
    mark(path);
    rewrite(content, time.addMSecs(laterMs));
    QCOMPARE(isCached(path), kept);
}

void ETagCacheTest::keepsTheTwoHundredOfLastUse()
{
    QStringList paths;
    for (int i = 0; i < 201; ++i)
        paths.append(write(QStringLiteral("lru%1").arg(i), "x"));
    for (const QString& path : paths.mid(0, 200))
        mark(path);
    QVERIFY(isCached(paths.at(0))); // And the most recent one from now on.
    entry(paths.at(200));
    QVERIFY(isCached(paths.at(0)));
    QVERIFY(!isCached(paths.at(1)));
    QVERIFY(!isCached(paths.at(2))); // Which the line above displaced.
    QVERIFY(isCached(paths.at(100)));
}

void ETagCacheTest::followsTheNameAndNotTheFile()
{
    const QString target = write("target", "x");
    const QString link = m_directory.filePath("link");
    QVERIFY(QFile::link(target, link));
    mark(target);
    QVERIFY(!isCached(link));
    QCOMPARE(entry(link).etag, entry(target).etag);
}

void ETagCacheTest::typesByContentThenExtension_data()
{
    QTest::addColumn<QString>("pattern");
    const auto row = [](const char* extension, const char* pattern) {
        QTest::newRow(extension) << QString::fromLatin1(pattern);
    };
    row("html", "text/html");
    row("htm", "text/html");
    row("css", "text/css");
    row("js", "(text|application)/javascript");
    row("mjs", "(text|application)/javascript");
    row("json", "application/json");
    row("map", "application/json");
    row("svg", "image/svg\\+xml");
    row("png", "image/png");
    row("jpg", "image/jpeg");
    row("jpeg", "image/jpeg");
    row("gif", "image/gif");
    row("webp", "image/webp");
    row("avif", "image/avif");
    row("ico", "image/(vnd.microsoft.icon|x-icon)");
    row("woff", "font/woff");
    row("woff2", "font/woff2");
    row("ttf", "font/ttf");
    row("otf", "font/otf");
    row("wasm", "application/wasm");
    row("xml", "(application|text)/xml");
    row("txt", "text/plain");
    row("md", "text/markdown");
    row("csv", "text/csv");
    row("pdf", "application/pdf");
    row("mp3", "audio/mpeg");
    row("flac", "audio/flac");
    row("wav", "audio/(x-)?wav");
    row("ogg", "audio/(x-vorbis\\+)?ogg");
    row("m4a", "audio/mp4");
    row("mp4", "video/mp4");
    row("webm", "video/webm");
    row("zip", "application/zip");
    row("gz", "application/gzip");
    row("webmanifest", "application/manifest\\+json");
    row("unheard-of", "text/plain|application/octet-stream");
}

void ETagCacheTest::typesByContentThenExtension()
{
    QFETCH(QString, pattern);
    const QString name = QStringLiteral("/nowhere/File.") + QString::fromLatin1(QTest::currentDataTag()).toUpper();
    const QByteArray text("{} plain words\n");
    for (const QString& file : { name, name.toLower() }) {
        const QString type = StaticHandler::getMimeType(QFileInfo(file), text.constData(), size_t(text.size()));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(type).hasMatch(),
            qPrintable(file + ' ' + type));
        QVERIFY(!StaticHandler::getMimeType(QFileInfo(file), nullptr, 0).isEmpty());
    }
}

void ETagCacheTest::largeFilesAreReadOnceForAll()
{
    const QString path = write("large", QByteArray(10 * 1024 * 1024, 'x'));
    const int before = CacheEntryBuilder::instance().finishedCount();
    QStringList etags;
    for (int i = 0; i < 5; ++i)
        build(path, [&](const ETagCacheEntry* made) { etags.append(made->etag); });
    QVERIFY(etags.isEmpty());
    QTRY_COMPARE(etags.size(), 5);
    QCOMPARE(CacheEntryBuilder::instance().finishedCount(), before + 1);
    QCOMPARE(etags.count(StaticHandler::calculateETag(
                 QFileInfo(path), QByteArray(10 * 1024 * 1024, 'x').constData(), 10 * 1024 * 1024)),
        5);
    mark(path); // Finds the builder's entry, or it would be read again here.
    QVERIFY(isCached(path));
}

void ETagCacheTest::largeFilesTakeTurns()
{
    const QString huge = write("huge", QByteArray());
    QFile::resize(huge, 512 * 1024 * 1024);
    const QString small = write("small", QByteArray(1024 * 1024, 'x'));
    QStringList finished;
    build(huge, [&](const ETagCacheEntry*) { finished.append("huge"); });
    build(small, [&](const ETagCacheEntry*) { finished.append("small"); });
    QTRY_COMPARE_WITH_TIMEOUT(finished, QStringList({ "small", "huge" }), 30000);
}

void ETagCacheTest::tellsOfAFileThatShrank()
{
    const QString path = write("shrinking", QByteArray());
    QFile::resize(path, 512 * 1024 * 1024);
    int answers = 0;
    build(path, [&](const ETagCacheEntry* made) { answers += made ? 100 : 1; });
    QFile::resize(path, 1024);
    QTRY_COMPARE_WITH_TIMEOUT(answers, 1, 30000);
}

// The second run has none of the desktop's tables of types, as a device may.
int main(int argc, char** argv)
{
    const bool bare = qEnvironmentVariableIsSet("ZARK_NO_MIME_DATABASE");
    if (bare) {
        qputenv("XDG_DATA_DIRS", "/nowhere");
        qputenv("XDG_DATA_HOME", "/nowhere");
    }
    QCoreApplication application(argc, argv);
    ETagCacheTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "ETagCacheTest.moc"
