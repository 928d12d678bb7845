#include <QtTest>

#include "MultipartParser.h"
#include "Rows.h"

namespace {

/// Writes down what it is told: "[name|fileName|contentType]data;" for each part, without the ";" when it did not end.
class Transcript : public MultipartSink {
public:
    void partBegan(const MultipartPart& part) override
    {
        text += '[' + part.name + '|' + part.fileName + '|' + part.contentType + ']';
    }
    void partData(const char* data, qsizetype length) override { text.append(data, int(length)); }
    void partEnded() override { text += ';'; }

    QByteArray text;
};

QByteArray part(const QByteArray& disposition, const QByteArray& data)
{
    return "--XyZ\r\nContent-Disposition: " + disposition + "\r\n\r\n" + data + "\r\n";
}

const QByteArray A = "form-data; name=\"a\"";
const QByteArray End = "--XyZ--\r\n";
const QByteArray Long(9000, 'x');
const QByteArray Nearly =
    "1\r\n--XyZ-\r\n--Xy\r\r\n--XyZw\r\n--XyZ \t2\r\n\r\n--XY\n--XyZ--\n\r\n--XyZ--w\r\n--XyZ-- \r3";

MultipartParser::Limits limits()
{
    MultipartParser::Limits limits;
    limits.parts = 3;
    return limits;
}

} // namespace

class MultipartParserTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    // In one piece, in pieces of one byte, and cut in two at every place.
    void cutAnywhere()
    {
        using P = MultipartParser;
        // A body with boundary "XyZ", and what is complete of it; not compared after an error.
        Rows<QByteArray, P::Error, QByteArray> row;
        row("two parts", part(A, "1") + part("form-data; name=b; filename=\"c d.bin\"", "\r\n2\r\n") + End, P::NoError,
            "[a||text/plain]1;[b|c d.bin|text/plain]\r\n2\r\n;");
        row("empty file", part(A, "") + End, P::NoError, "[a||text/plain];");
        row("part without a body", "--XyZ\r\nContent-Disposition: " + A + "\r\n\r\n--XyZ-- ", P::NoError,
            "[a||text/plain];");
        row("nearly boundaries", part(A, Nearly) + End, P::NoError, "[a||text/plain]" + Nearly + ';');
        row("data that begins like a boundary", part(A, "--XyZw\r\n--") + End, P::NoError,
            "[a||text/plain]--XyZw\r\n--;");
        row("preamble, padding and epilogue",
            "hello\r\n--XyZ \t\r\nContent-Disposition:" + A + "\r\n\r\n1\r\n--XyZ--\t \r\n" + End, P::NoError,
            "[a||text/plain]1;");
        row("folded header, type, escapes",
            "--XyZ\r\ncontent-TYPE: image/png\r\nContent-Disposition: form-data;\r\n name=\"a\\\"b\" ;\r\n\tfilename="
            "\"C:\\x\\\\y\"\r\n\r\n1\r\n"
                + End,
            P::NoError, "[a\"b|C:\\x\\y|image/png]1;");
        row("no parts", End, P::NoError, "");
        row("no final boundary", part(A, "1"), P::Unterminated, {});
        row("no boundary", "hello", P::Unterminated, {});
        row("boundary without its line end", "--XyZ", P::Unterminated, {});
        row("nothing", "", P::Unterminated, {});
        row("long preamble", Long + "\r\n" + part(A, "1") + End, P::PreambleTooLong, {});
        row("long header", part(A + "; x=" + Long, "1") + End, P::HeaderTooLong, {});
        row("endless header", "--XyZ\r\n" + Long, P::HeaderTooLong, {});
        row("many parts", part(A, "1").repeated(4) + End, P::TooManyParts, {});
        row("long epilogue", part(A, "1") + End + Long.repeated(8), P::EpilogueTooLong, {});
        row("no header", "--XyZ\r\n\r\n1\r\n" + End, P::HeaderMalformed, {});
        row("no name", part("form-data; filename=x", "1") + End, P::HeaderMalformed, {});
        row("not form-data", part("attachment; name=a", "1") + End, P::HeaderMalformed, {});
        row("two names", part(A + "; name=b", "1") + End, P::HeaderMalformed, {});
        row("open quote", part("form-data; name=\"a", "1") + End, P::HeaderMalformed, {});
        row("text behind a quote", part("form-data; name=\"a\"b", "1") + End, P::HeaderMalformed, {});
        row("blank before the colon", part(A + "\r\nX : y", "1") + End, P::HeaderMalformed, {});
        row("control character", part(A + "\r\nX: \r y", "1") + End, P::HeaderMalformed, {});
        for (const auto& [body, error, transcript] : row) {
            const int size = body.size();
            for (int cut = 0; cut <= std::min(size, 500); ++cut)
                check(body, error, transcript, { cut, size - cut });
            check(body, error, transcript, QVector<int>(size, 1));
            if (QTest::currentTestFailed())
                return;
        }
    }

    void boundaries()
    {
        Rows<QByteArray, QByteArray> row;
        row("bare", "XyZ", "XyZ");
        row("later parameter", "XyZ ; charset=utf-8", "XyZ");
        row("quoted", "\"X y:Z\"; charset=utf-8", "X y:Z");
        row("no such character", "\"X;Z\"", {});
        row("quote left open", "\"XyZ", {});
        row("empty", {}, {});
        row("ends in a blank", "\"XyZ \"", {});
        row("71 characters", QByteArray(71, 'x'), {});
        row("line break", "X\r\nZ", {});
        for (const auto& [parameter, boundary] : row) {
            QCOMPARE(MultipartParser::boundaryOf(parameter), boundary);
        }
    }

private:
    static void check(
        const QByteArray& body, MultipartParser::Error error, const QByteArray& expected, const QVector<int>& pieces)
    {
        Transcript transcript;
        MultipartParser parser("XyZ", limits(), &transcript);
        int position = 0;
        for (const int piece : pieces) {
            parser.feed(body.constData() + position, piece);
            position += piece;
        }
        QCOMPARE(parser.finish(), error == MultipartParser::NoError);
        QCOMPARE(parser.error(), error);
        if (error == MultipartParser::NoError)
            QCOMPARE(transcript.text, expected);
    }
};

QTEST_APPLESS_MAIN(MultipartParserTest)

#include "MultipartParserTest.moc"
