#include <QtTest>

#include <unistd.h>

#include "CacheEntryBuilder.h"
#include "Files.h"
#include "GuardedMapping.h"
#include "LocalFile.h"
#include "Rows.h"
#include "StaticHandler.h"

namespace {

const QString Marked = QStringLiteral("application/x-marked");

} // namespace

class ETagCacheTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void digestsAreOfTheContent()
    {
        const QString path = write("abc", QByteArray("a\0bc", 4));
        // A directory took its name meanwhile.
        QCOMPARE(entry(path, m_directory.path()).etag, QString("a5f5d1ebd362d6639389a7e1fede534d"));
        QCOMPARE(StaticHandler::calculateETag(QFileInfo(m_directory.path()), "abc", 3), QString());
    }

    void rebuildsOutdatedEntries()
    {
        Rows<QByteArray, int, bool> row;
        row("unchanged", "12345", 0, true);
        row("other time", "54321", 1, false);
        row("earlier", "54321", -5000, false);
        row("other size", "123456", 0, false);
        // By design: as long as size and time are the same, the content is.
        row("other content", "54321", 0, true);
        for (const auto& [content, laterMs, kept] : row) {
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
    }

    void keepsTheTwoHundredOfLastUse()
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

    void followsTheNameAndNotTheFile()
    {
        const QString target = write("target", "x");
        const QString link = m_directory.filePath("link");
        QVERIFY(QFile::link(target, link));
        mark(target);
        QVERIFY(!isCached(link));
        QCOMPARE(entry(link).etag, entry(target).etag);
    }

    void typesByContentThenExtension()
    {
        Rows<QString> row;
        row("html", "text/html");
        row("mjs", "(text|application)/javascript");
        row("svg", "image/svg\\+xml");
        row("woff2", "font/woff2");
        row("m4a", "audio/mp4");
        row("unheard-of", "text/plain|application/octet-stream");
        for (const auto& [pattern] : row) {
            const QString name = QStringLiteral("/no#where?/a#b?File.") + QString::fromLatin1(row.name()).toUpper();
            const QByteArray text("{} plain words\n");
            for (const QString& file : { name, name.toLower() }) {
                const QString type = StaticHandler::getMimeType(QFileInfo(file), text.constData(), size_t(text.size()));
                QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(type).hasMatch(),
                    qPrintable(file + ' ' + type));
                QVERIFY(!StaticHandler::getMimeType(QFileInfo(file), nullptr, 0).isEmpty());
            }
        }
    }

    void largeFilesAreReadOnceForAll()
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

    void largeFilesTakeTurns()
    {
        const QString huge = write("huge", QByteArray());
        QFile::resize(huge, 512 * 1024 * 1024);
        const QString small = write("small", QByteArray(1024 * 1024, 'x'));
        QStringList finished;
        build(huge, [&](const ETagCacheEntry*) { finished.append("huge"); });
        build(small, [&](const ETagCacheEntry*) { finished.append("small"); });
        QTRY_COMPARE_WITH_TIMEOUT(finished, QStringList({ "small", "huge" }), 30000);
    }

    void readsNoMoreThanIsWaitedFor()
    {
        const QString next = write("next", "x");
        const int before = CacheEntryBuilder::instance().finishedCount();
        auto leaving = std::make_unique<QObject>();
        const auto neverCalled = [](const ETagCacheEntry*) {
            QFAIL("called for nobody");
        };
        for (int i = 0; i < CacheEntryBuilder::MaximumJobs; ++i) {
            const QString huge = write(QStringLiteral("left%1").arg(i), QByteArray());
            QFile::resize(huge, 512 * 1024 * 1024);
            QVERIFY(build(huge, neverCalled, leaving.get()));
        }
        const auto mapping = m_lastMapping;
        QVERIFY(!build(next, neverCalled));
        bool built = false;
        CacheEntryBuilder::instance().waitForRoom(
            this, [&] { build(next, [&](const ETagCacheEntry*) { built = true; }); });
        leaving.reset();
        QTRY_VERIFY(built && mapping.expired());
        QCOMPARE(CacheEntryBuilder::instance().finishedCount(), before + 1);
    }

    void tellsOfAFileThatShrank()
    {
        const QString path = write("shrinking", QByteArray());
        QFile::resize(path, 512 * 1024 * 1024);
        int answers = 0;
        build(path, [&](const ETagCacheEntry* made) { answers += made ? 100 : 1; });
        QFile::resize(path, 1024);
        QTRY_COMPARE_WITH_TIMEOUT(answers, 1, 30000);
    }

private:
    QString write(const QString& name, const QByteArray& content)
    {
        writeFile(m_directory.filePath(name), content);
        return m_directory.filePath(name);
    }
    static StaticHandler::ETagCacheEntry entry(const QString& path) { return entry(path, path); }
    /// Of a file that had this path when it was mapped, and another name by now.
    static StaticHandler::ETagCacheEntry entry(const QString& path, const QString& name)
    {
        GMappedFile* mapping = g_mapped_file_new(QFile::encodeName(path).constData(), FALSE, nullptr);
        const auto result = StaticHandler::getCacheEntry(QFileInfo(name), mapping);
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
    bool build(const QString& path, const CacheEntryBuilder::Built& built, QObject* receiver = nullptr)
    {
        const LocalFile file(QFile::encodeName(path));
        const auto mapping = GuardedMapping::map(file.descriptor(), nullptr);
        m_lastMapping = mapping;
        return CacheEntryBuilder::instance().build(
            path, file.lastModified(), mapping, receiver ? receiver : this, built);
    }

    QTemporaryDir m_directory;
    std::weak_ptr<GuardedMapping> m_lastMapping; ///< Gone when nobody reads the file any more.
};

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
