#include <QElapsedTimer>
#include <QTest>

#include "ByteRange.h"

namespace {

using Kind = RangeRequest::Kind;

RangeRequest read(const QByteArray& field, qint64 length)
{
    SoupMessageHeaders* headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_REQUEST);
    soup_message_headers_append(headers, "Range", field.constData());
    const RangeRequest request = readRange(headers, length);
    soup_message_headers_free(headers);
    return request;
}

} // namespace

class ByteRangeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void staysInsideTheFile_data();
    void staysInsideTheFile();
    void boundsNumbers_data();
    void boundsNumbers();
    void anyNumberOfRangesCostsNothing();
    void noFieldMeansTheWhole();
};

void ByteRangeTest::staysInsideTheFile_data()
{
    QTest::addColumn<QByteArray>("field");
    QTest::addColumn<int>("kind");
    QTest::addColumn<qint64>("first");
    QTest::addColumn<qint64>("last");
    const auto single = [](const char* field, qint64 first, qint64 last) {
        QTest::newRow(field) << QByteArray(field) << int(Kind::Single) << first << last;
    };
    const auto other = [](const char* field, Kind kind) {
        QTest::newRow(field) << QByteArray(field) << int(kind) << qint64(0) << qint64(-1);
    };
    single("bytes=0-0", 0, 0);
    single("bytes=2-5", 2, 5);
    single("bytes=9-9", 9, 9);
    single("bytes=0-9", 0, 9);
    single("bytes=7-", 7, 9);
    single("bytes=-3", 7, 9);
    single("bytes=-10", 0, 9);
    single("bytes=-100", 0, 9);
    single("bytes=0-99", 0, 9);
    single("bytes=9-9223372036854775807", 9, 9);
    single("bytes=0-18446744073709551615", 0, 9);
    single("bytes=0-18446744073709551620", 0, 9);
    single("bytes=-18446744073709551615", 0, 9);
    single("bytes=-9223372036854775808", 0, 9);
    single("bytes=0000000000000000000000004-5", 4, 5);
    single("bytes=0-3,2-5", 0, 5); // One range, once the two are merged.
    other("bytes=10-", Kind::Unsatisfiable);
    other("bytes=10-10", Kind::Unsatisfiable);
    other("bytes=100-200", Kind::Unsatisfiable);
    other("bytes=-0", Kind::Unsatisfiable);
    other("bytes=18446744073709551615-", Kind::Unsatisfiable);
    other("bytes=9223372036854775808-", Kind::Unsatisfiable);
    other("bytes=9223372036854775807-9223372036854775807", Kind::Unsatisfiable);
    other("bytes=18446744073709551616-18446744073709551620", Kind::Unsatisfiable);
    other("bytes=0-1,3-4", Kind::Several);
    other("bytes=0-0,-1", Kind::Several);
    other("bytes=0-1,100-", Kind::Several);
    for (const char* field :
        { "", "bytes", "bytes=", "bytes=,", "bytes=-", "bytes=x", "bytes=5", "bytes=5-2", "bytes=--5", "bytes=0-1,x",
            "bytes=1-2-3", "bytes=+1-2", "bytes=0-+5", "bytes=a-b", "items=0-4", "0-4", "bytes=0x1-5" })
        other(field, Kind::Whole);
}

void ByteRangeTest::staysInsideTheFile()
{
    QFETCH(QByteArray, field);
    QFETCH(int, kind);
    QFETCH(qint64, first);
    QFETCH(qint64, last);
    const RangeRequest request = read(field, 10);
    QCOMPARE(int(request.kind), kind);
    if (kind == Kind::Single) {
        QCOMPARE(request.range.first, first);
        QCOMPARE(request.range.last, last);
    }
}

void ByteRangeTest::boundsNumbers_data()
{
    QTest::addColumn<QByteArray>("bounded");
    const QByteArray nines(18, '9');
    const auto row = [](const QByteArray& field, const QByteArray& bounded) {
        QTest::newRow(field.constData()) << bounded;
    };
    row("bytes=0-5", "bytes=0-5");
    row("bytes=007-00", "bytes=7-0");
    row("bytes=" + nines + "-", "bytes=" + nines + "-");
    row("bytes=1000000000000000000-", "bytes=" + nines + "-");
    row("bytes=-" + QByteArray(500, '1') + ",3", "bytes=-" + nines + ",3");
}

void ByteRangeTest::boundsNumbers()
{
    QFETCH(QByteArray, bounded);
    QCOMPARE(withBoundedNumbers(QTest::currentDataTag()), bounded);
}

void ByteRangeTest::anyNumberOfRangesCostsNothing()
{
    QByteArray field("bytes=0-");
    for (int i = 0; i < 20000; ++i)
        field += ",0-";
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(read(field, 1000000).kind, Kind::Several);
    QVERIFY2(timer.elapsed() < 50, QByteArray::number(timer.elapsed()));
}

void ByteRangeTest::noFieldMeansTheWhole()
{
    SoupMessageHeaders* headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_REQUEST);
    QCOMPARE(readRange(headers, 10).kind, Kind::Whole);
    soup_message_headers_free(headers);
}

QTEST_APPLESS_MAIN(ByteRangeTest)
#include "ByteRangeTest.moc"
