#include <QtTest>

#include <memory>

#include <csignal>
#include <sys/stat.h>

#include "Device.h"
#include "DocumentRoot.h"
#include "Namespace.h"
#include "Rows.h"

namespace {

using Fields = QList<QByteArray>;

const QByteArray Content = "0123456789";
const QByteArray Tag = QCryptographicHash::hash(Content, QCryptographicHash::Md5).toHex();

} // namespace

class StaticFilesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_root.write("ten.txt", Content);
        m_root.write("empty.txt", {});
        m_root.write("sub/index.html", "<p>index</p>");
        m_root.write("bare/file.txt", "x");
        m_root.write("strange/index.html/inner.txt", "x");
        m_root.write("größe €.txt", "named");
        m_root.write("secret.txt", "x");
        m_root.write("q?#%.txt", "odd");
        chmod(m_root.file("secret.txt").constData(), 0);
        QFile::link("../canary.txt", m_root.file("leak.txt"));
        QFile::link("..", m_root.file("parent"));
        QFile::link("ten.txt", m_root.file("inner-link.txt"));
        QFile::link("loop", m_root.file("loop"));
        QFile::link("/dev/zero", m_root.file("zero"));
        mkfifo(m_root.file("fifo").constData(), 0666);
        // Nobody reads what it logs before the end.
        m_device = std::make_unique<Device>(QStringList{ m_root.setting() }, QStringList{ "--log-level", "fatal" });
    }

    void answers()
    {
        Rows<QByteArray, QByteArray, Fields, int, QByteArray, QByteArray> rows;
        const auto row = [&](const char* name, const char* method, const QByteArray& target, const Fields& fields,
                             int status, const QByteArray& body, const QByteArray& contentRange = {}) {
            rows(name, method, target, fields, status, body, contentRange);
        };
        const QByteArray nothing("");
        const QByteArray date = "Sat, 29 Oct 1994 19:43:31 GMT";
        row("GET", "GET", "/ten.txt", {}, 200, Content);
        row("POST is GET", "POST", "/ten.txt", {}, 200, Content);
        row("PUT", "PUT", "/ten.txt", {}, 405, nothing);
        row("DELETE", "DELETE", "/ten.txt", {}, 405, nothing);
        row("lower case is another method", "get", "/ten.txt", {}, 405, nothing);
        row("query is no name", "GET", "/ten.txt?a=b", {}, 200, Content);
        row("double slash", "GET", "//ten.txt", {}, 200, Content);
        row("dots within", "GET", "/sub/..%2Ften.txt", {}, 200, Content);
        row("link within", "GET", "/inner-link.txt", {}, 200, Content);
        row("UTF-8 name", "GET", "/gr%C3%B6%C3%9Fe%20%E2%82%AC.txt", {}, 200, "named");
        row("odd name", "GET", "/q%3F%23%25.txt", {}, 200, "odd");
        row("index", "GET", "/sub/", {}, 200, "<p>index</p>");
        row("empty", "GET", "/empty.txt", {}, 200, nothing);
        row("empty, with a range", "GET", "/empty.txt", { "Range: bytes=0-0" }, 200, nothing);

        row("If-None-Match", "GET", "/ten.txt", { "If-None-Match: \"" + Tag + '"' }, 304, nothing);
        row("If-None-Match bare", "GET", "/ten.txt", { "If-None-Match: " + Tag }, 304, nothing);
        row("If-None-Match in a list", "GET", "/ten.txt", { "If-None-Match: \"a\", W/\"" + Tag + "\", \"b\"" }, 304,
            nothing);
        row("If-None-Match in fields", "GET", "/ten.txt", { "If-None-Match: \"a\"", "If-None-Match: " + Tag }, 304,
            nothing);
        row("If-None-Match *", "GET", "/bare/file.txt", { "If-None-Match: *" }, 304, nothing);
        row("If-None-Match * in a list", "GET", "/ten.txt", { "If-None-Match: \"a\", *" }, 200, Content);
        row("If-None-Match other", "GET", "/ten.txt", { "If-None-Match: \"a\"" }, 200, Content);
        row("If-None-Match POST", "POST", "/ten.txt", { "If-None-Match: " + Tag }, 304, nothing);
        row("If-None-Match PUT", "PUT", "/ten.txt", { "If-None-Match: *" }, 405, nothing);
        row("If-None-Match before Range", "GET", "/ten.txt", { "If-None-Match: *", "Range: bytes=0-0" }, 304, nothing);
        row("If-Match", "GET", "/ten.txt", { "If-Match: \"" + Tag + '"' }, 200, Content);
        row("If-Match *", "GET", "/ten.txt", { "If-Match: *" }, 200, Content);
        row("If-Match empty", "GET", "/ten.txt", { "If-Match: " }, 200, Content);
        row("If-Match other", "GET", "/ten.txt", { "If-Match: \"a\"" }, 412, nothing);
        row("If-Match other POST", "POST", "/ten.txt", { "If-Match: \"a\"" }, 412, nothing);
        row("If-Match other PUT", "PUT", "/ten.txt", { "If-Match: \"a\"" }, 412, nothing);
        row("If-None-Match before If-Match", "GET", "/ten.txt", { "If-Match: \"a\"", "If-None-Match: *" }, 304,
            nothing);

        row("range", "GET", "/ten.txt", { "Range: bytes=2-4" }, 206, "234", "bytes 2-4/10");
        row("range, beyond the end", "GET", "/ten.txt", { "Range: bytes=0-99" }, 206, Content, "bytes 0-9/10");
        row("range, outside", "GET", "/ten.txt", { "Range: bytes=10-" }, 416, {});
        row("ranges", "GET", "/ten.txt", { "Range: bytes=0-1,4-5" }, 200, Content);
        row("range POST", "POST", "/ten.txt", { "Range: bytes=2-4" }, 206, "234", "bytes 2-4/10");
        row("If-Range", "GET", "/ten.txt", { "Range: bytes=2-4", "If-Range: " + Tag }, 206, "234", "bytes 2-4/10");
        row("If-Range quoted", "GET", "/ten.txt", { "Range: bytes=2-4", "If-Range: \"" + Tag + '"' }, 200, Content);
        row("If-Range date", "GET", "/ten.txt", { "Range: bytes=2-4", "If-Range: " + date }, 200, Content);
        row("If-Range other, outside", "GET", "/ten.txt", { "Range: bytes=10-", "If-Range: a" }, 200, Content);

        row("missing", "GET", "/absent.txt", {}, 404, {});
        row("file as directory", "GET", "/ten.txt/", {}, 404, {});
        row("loop", "GET", "/loop", {}, 404, {});
        row("device", "GET", "/zero", {}, 404, {}); // Outside the root.
        row("link out of the root", "GET", "/leak.txt", {}, 404, {});
        row("directory out of the root", "GET", "/parent/canary.txt", {}, 404, {});
        row("fifo", "GET", "/fifo", {}, 500, {});
        row("long path", "GET", '/' + QByteArray(8192, 'a'), {}, 404, {});
        row("long name", "GET", '/' + QByteArray(256, 'a'), {}, 404, {});
        row("not UTF-8", "GET", "/%FF%FE.txt", {}, 404, {});
        row("NUL", "GET", "/ten.txt%00.png", {}, 404, {});
        if (geteuid() != 0)
            row("unreadable", "GET", "/secret.txt", {}, 403, {});
        for (const auto& [method, target, fields, status, body, contentRange] : rows) {
            // Twice: with the file not seen before, and with it known.
            for (int i = 0; i < 2; ++i) {
                const HttpReply reply = m_device->request(method, target, fields);
                QCOMPARE(reply.status, status);
                if (!body.isNull())
                    QCOMPARE(reply.body, body);
                QCOMPARE(reply.header("Content-Range"), contentRange);
                QCOMPARE(!reply.header("ETag").isNull(), status == 200 || status == 206);
                QVERIFY(reply.header("Content-Security-Policy").isNull());
                QVERIFY(reply.header("Transfer-Encoding").isNull());
                QCOMPARE(reply.header("Content-Length"),
                    status == 304 ? QByteArray() : QByteArray::number(reply.body.size()));
            }
        }
    }

    void redirects()
    {
        Rows<QByteArray, QByteArray> row;
        row("the root", "/", "/webclient/");
        row("without a slash", "/sub", "/sub/");
        row("with a query", "/sub?a=%26&b", "/sub/?a=%26&b");
        row("no index", "/bare/", "/bare/index.fcgi");
        row("index is a directory", "/strange/", "/strange/index.fcgi");
        row("encoded", "/%73ub/..%2Fbare", "/sub/..%2Fbare/");
        for (const auto& [target, location] : row) {
            const QByteArray host = "bob's+speaker.local"; // No host name by the book.
            const HttpReply reply = m_device->connect(httpRequest("GET", target, { "Host: " + host })).readReply();
            QCOMPARE(reply.status, 301);
            QCOMPARE(reply.header("Location"), "http://" + host + location);
            QCOMPARE(reply.header("Cache-Control"), QByteArray("no-cache, no-store, must-revalidate"));
            QCOMPARE(reply.header("Pragma"), QByteArray("no-cache"));
            QCOMPARE(reply.header("Expires"), QByteArray("0"));
            QCOMPARE(reply.body, QByteArray());
        }
    }

    void headSaysWhatGetWouldSend()
    {
        const HttpReply head = m_device->request("HEAD", "/ten.txt", { "Range: bytes=0-1" });
        QCOMPARE(head.status, 200);
        QCOMPARE(head.header("Content-Length"), QByteArray("10"));
        QCOMPARE(head.header("Content-Type"), QByteArray("text/plain"));
        QVERIFY(head.header("ETag").isNull());
        QCOMPARE(m_device->request("HEAD", "/empty.txt").header("Content-Length"), QByteArray("0"));
        QCOMPARE(m_device->request("HEAD", "/ten.txt", { "If-None-Match: *" }).status, 304);
        QCOMPARE(m_device->request("HEAD", "/absent.txt").status, 404);
        // The connection stays in step.
        HttpConnection connection = m_device->connect(httpRequest("HEAD", "/ten.txt")
            + httpRequest("GET", "/ten.txt", { "Host: localhost", "If-None-Match: *" })
            + httpRequest("GET", "/ten.txt"));
        QCOMPARE(connection.readReply(5000, true).status, 200);
        QCOMPARE(connection.readReply().status, 304);
        QCOMPARE(connection.readReply().body, Content);
    }

    void nothingOutsideTheRoot()
    {
        for (const QByteArray prefix : { "", "/sub", "/bare/x", "/absent", "/sub/..", "//" }) {
            const QList<QByteArray> parents{ "..", "%2e%2e", ".%2E", "%2e.", "%252e%252e", "..%00", "..;", ".%00.",
                "%c0%ae%c0%ae", "%uff0e%uff0e", "\xC0\xAE\xC0\xAE", "...", "....", "..%20", "parent",
                "%ef%bc%8e%ef%bc%8e" };
            const QList<QByteArray> slashes{ "/", "%2f", "%2F", "\\", "%5c", "//", "%252f", "/./", "%c0%af", "%00/",
                "/%09" };
            HttpConnection connection(m_device->port());
            for (const QByteArray& parent : parents) {
                for (const QByteArray& slash : slashes) {
                    QByteArray target = prefix + '/' + slash;
                    for (int depth = 0; depth < 4; ++depth) {
                        target += parent + slash;
                        for (const QByteArray& name : { QByteArray("canary.txt"), "etc" + slash + "passwd" }) {
                            connection.send(httpRequest("GET", target + name));
                            const HttpReply reply = connection.readReply();
                            QVERIFY2(reply.status == 404, target + name + ' ' + QByteArray::number(reply.status));
                            QVERIFY(!reply.body.contains(DocumentRoot::Canary));
                            QVERIFY(!reply.body.contains("root:"));
                        }
                    }
                }
            }
        }
    }

    void textsNameTheUri()
    {
        const HttpReply reply = get("/ten.txt?a=%1", { "Range: bytes=10-" });
        QCOMPARE(reply.header("Content-Type"), QByteArray("text/plain"));
        QCOMPARE(reply.body, "The requested url '" + m_device->baseUrl() + "/ten.txt?a=%1' was not found.");
    }

    void remoteClientsWaitForTheNode()
    {
        const Client remote{ RemoteAddress, {} };
        const HttpReply refused = m_device->ask(remote, "/ten.txt");
        QCOMPARE(refused.status, 403);
        QCOMPARE(refused.body, QByteArray());
        for (const char* allowed : { "true", "false" }) {
            QCOMPARE(m_device->set("settings:webserver/enableExternalWebAccess", allowed), 200);
            QCOMPARE(m_device->ask(remote, "/ten.txt").status, *allowed == 't' ? 200 : 403);
        }
    }

    void filesForReading()
    {
        Rows<QByteArray, int> row;
        row("text", "about.txt", 200);
        row("tone, read later", "tone.wav", 200);
        row("more than goes at once", "large.bin", 200);
        row("no name", "", 404);
        row("absent", "absent", 404);
        row("deeper", "deeper/about.txt", 404);
        row("outside", "../state.db", 404);
        row("outside, encoded", "..%2Fstate.db", 404);
        row("directory", "deeper", 301);
        const QString files = m_device->stateDirectory() + "/files/";
        QVERIFY(QDir(files).mkpath("deeper"));
        writeFile(files + "large.bin", QByteArray(20 * 1000 * 1000, 'x'));
        for (const auto& [name, status] : row) {
            const QByteArray url = "/file/stream" + files.toUtf8() + name;
            const HttpReply reply = get(url);
            QCOMPARE(reply.status, status);
            if (status != 200)
                continue;
            const QByteArray content = contentOf(files + name);
            QCOMPARE(reply.body, content);
            const QByteArray tag = QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex();
            QCOMPARE(get(url, { "If-None-Match: " + tag }).status, 304);
            QCOMPARE(get(url, { "Range: bytes=-7" }).body, content.right(7));
        }
    }

    void cleanupTestCase()
    {
        QCOMPARE(m_device->stop(SIGTERM), 0);
        QVERIFY(!m_device->log().contains("CRITICAL"));
    }

private:
    HttpReply get(const QByteArray& target, const Fields& fields = {}) const { return m_device->get(target, fields); }

    DocumentRoot m_root;
    std::unique_ptr<Device> m_device;
};

NAMESPACE_TEST_MAIN(StaticFilesTest)

#include "StaticFilesTest.moc"
