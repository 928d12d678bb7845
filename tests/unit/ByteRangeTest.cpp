#include <QtTest>

#include "ByteRange.h"
#include "Rows.h"

namespace {

using Kind = RangeRequest::Kind;

RangeRequest read(const QByteArray& field, qint64 length)
{
    SoupMessageHeaders* headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_REQUEST);
    if (!field.isNull())
        soup_message_headers_append(headers, "Range", field.constData());
    const RangeRequest request = readRange(headers, length);
    soup_message_headers_free(headers);
    return request;
}

} // namespace

class ByteRangeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void staysInsideTheFile()
    {
        Rows<QByteArray, Kind, qint64, qint64> row;
        const auto single = [&](const char* field, qint64 first, qint64 last) {
            row(field, field, Kind::Single, first, last);
        };
        const auto other = [&](const char* field, Kind kind) {
            row(field, field, kind, qint64(0), qint64(-1));
        };
        single("bytes=0-0", 0, 0);
        single("bytes=0-9", 0, 9);
        single("bytes=7-", 7, 9);
        single("bytes=-3", 7, 9);
        single("bytes=-10", 0, 9);
        single("bytes=9-9223372036854775807", 9, 9);
        single("bytes=0-18446744073709551615", 0, 9);
        single("bytes=-18446744073709551615", 0, 9);
        single("bytes=0000000000000000000000004-5", 4, 5);
        single("bytes=0-3,2-5", 0, 5); // One range, once the two are merged.
        other("bytes=10-", Kind::Unsatisfiable);
        other("bytes=-0", Kind::Unsatisfiable);
        other("bytes=18446744073709551615-", Kind::Unsatisfiable);
        other("bytes=18446744073709551616-18446744073709551620", Kind::Unsatisfiable);
        other("bytes=0-1,3-4", Kind::Several);
        other("bytes=0-1,100-", Kind::Several);
        for (const char* field : { "", "bytes", "bytes=", "bytes=-", "bytes=x", "bytes=5", "bytes=5-2", "bytes=--5",
                 "bytes=0-1,x", "bytes=1-2-3", "bytes=+1-2", "bytes=0-+5", "items=0-4", "0-4", "bytes=0x1-5" })
            other(field, Kind::Whole);
        row("no field", {}, Kind::Whole, 0, -1);
        for (const auto& [field, kind, first, last] : row) {
            const RangeRequest request = read(field, 10);
            QCOMPARE(request.kind, kind);
            if (kind == Kind::Single) {
                QCOMPARE(request.range.first, first);
                QCOMPARE(request.range.last, last);
            }
        }
    }

    void anyNumberOfRangesCostsNothing()
    {
        QByteArray field("bytes=0-");
        for (int i = 0; i < 20000; ++i)
            field += ",0-";
        const QDeadlineTimer limit(50);
        QCOMPARE(read(field, 1000000).kind, Kind::Several);
        QVERIFY(!limit.hasExpired());
    }
};

QTEST_APPLESS_MAIN(ByteRangeTest)
#include "ByteRangeTest.moc"
