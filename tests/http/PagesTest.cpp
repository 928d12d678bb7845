#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

#include "Device.h"
#include "DocumentRoot.h"
#include "Namespace.h"
#include "Rows.h"
#include "Signer.h"
#include "Tls.h"

namespace {

const QByteArray Hostile = "<script>\"'&-->";
const QByteArray Escaped = "&lt;script&gt;&quot;&#39;&amp;--&gt;";
const QByteArray Set = "<!--#set path='$form.path' value='$form.value'--><p>[$error<!--#echo value=\"$error\"-->]";

QByteArray get(const QByteArray& path)
{
    return "<!--#get path=\"" + path + "\"-->";
}

} // namespace

/// Template pages over HTTPS, from this device and, in a network namespace, from another.
class PagesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        m_root.write("value.fcgi",
            "<p a='" + get("settings:ui/language") + "'>" + get("player:player/volume") + get("demo:values/double")
                + get("demo:values/bool") + ' ' + get("demo:values/stringList"));
        m_root.write("set.fcgi", Set);
        QVERIFY(QFile::link("../canary.txt", m_root.path() + "/link.fcgi"));
        m_root.write("text.fcgi",
            "<p a='<!--#echo value='$form.value$query.value'-->'><!--#echo value='$form.value$query.value'-->"
                + get("settings:webserver/defaultLocation"));
        m_root.write("closed.fcgi",
            "[" + get("demo:permissions/protected") + "|" + get("demo:permissions/internal")
                + "|<!--#if "
                  "path='demo:permissions/protected' equals='0'-->0<!--#endif--><!--#rows path='demo:lists/mixed'-->"
                  "<!--#row role='title'-->,<!--#endrows--><!--#rows path='demo:permissionLists/protected'-->row"
                  "<!--#endrows-->]");
        m_root.write("outer.fcgi", "a<!--#include file='parts/inner.inc'-->b");
        m_root.write("parts/inner.inc", "<!--#include file='/leaf.inc'-->");
        m_root.write("leaf.inc", "<!--#if value='1' equals='2'-->x<!--#else-->leaf<!--#endif-->");
        m_root.write("many.fcgi",
            get("demo:lists/none")
                + "<!--#rows path='demo:lists/large' count='1000'--><!--#get path='$row.path'--><!--#endrows-->");
        for (const char* name : { "status/index.fcgi", "status/style.inc" }) {
            QFile file(QStringLiteral(DEMO_PAGES "/") + name);
            QVERIFY(file.open(QIODevice::ReadOnly));
            m_root.write(name, file.readAll());
        }
        m_port = Device::freePort();
        m_device = std::make_unique<Device>(
            QStringList{ m_root.setting(), QStringLiteral("settings:webserver/httpsPort=%1").arg(m_port),
                R"(settings:webserver/users=[{"name":"admin","password":"password"}])" });
        QTRY_VERIFY_WITH_TIMEOUT(fetch("/value.fcgi").startsWith("HTTP/1.1 200"), 20000);
    }

    // Rows are a story. What is expected are parts of the answer; the first is its status.
    void answers()
    {
        Rows<QByteArray, QStringList, QByteArrayList> row;
        const QStringList origin{ "-H", "Origin: https://127.0.0.1:" + QString::number(m_port) };
        const auto form = [](const char* path, const char* value) {
            return QStringList{ "-d", QStringLiteral("path=") + path, "--data-urlencode",
                QStringLiteral("value=") + value };
        };
        row("values", "/value.fcgi", {},
            { "200", "<p a='en'>3021.5true ", "\r\nContent-Type: text/html; charset=utf-8\r\n",
                "\r\nContent-Security-Policy: frame-ancestors 'self'\r\n", "no-store" });
        row("HEAD", "/value.fcgi", { "-I" }, { "200", "text/html" });
        row("another method", "/value.fcgi", { "-X", "PUT" }, { "405", "\r\nAllow: GET, HEAD, POST\r\n" });
        row("no page", "/no.fcgi", {}, { "404", "/no.fcgi' was not found." });
        row("outside the root", "/link.fcgi", {}, { "404" });
        row("plain HTTP", "http:/set.fcgi", {}, { "200", Set });
        row("markup in a query", "/text.fcgi?value=%3Cscript%3E%22%27%26--%3E", {},
            { "200", "<p a='" + Escaped + "'>" + Escaped });
        row("markup in a form", "/text.fcgi", origin + form("", Hostile), { "200", "<p a='" + Escaped });
        row("form of another type", "/text.fcgi",
            origin + QStringList{ "-H", "Content-Type: application/json", "-d", R"({"value":"xyz"})" },
            { "200", "<p a=''>" });

        row("number", "/set.fcgi?a=b", origin + form("demo:values/i32", "-5"),
            { "303", "\r\nLocation: https://127.0.0.1:" + QByteArray::number(m_port) + "/set.fcgi?a=b\r\n" });
        row("by its Referer", "/set.fcgi",
            QStringList{ "-H", origin.at(1) + "/x" }.replaceInStrings("Origin", "Referer")
                + form("demo:values/bool", "off"),
            { "303" });
        row("a text that is markup", "/set.fcgi", origin + form("settings:webserver/defaultLocation", Hostile),
            { "303" });
        row("markup in a node", "/text.fcgi", {}, { "200", "<p a=''>" + Escaped });
        row("command", "/set.fcgi", origin + form("player:player/control", "play"), { "303" });
        row("no number", "/set.fcgi", origin + form("demo:values/i32", "4.5"),
            { "200", "[$error&quot;4.5&quot; is no value of type i32.]" });
        row("out of range", "/set.fcgi", origin + form("demo:values/i32", "101"),
            { "200", "[$errorThe value must be at most 100.]" });
        row("no such node", "/set.fcgi", origin + form("demo:values/no", "1"),
            { "200", "[$errorThere is no such node.]" });
        row("a field is missing", "/set.fcgi", origin + QStringList{ "-d", "value=1" }, { "200", "<p>[$error]" });
        for (const char* foreign : { "null", "http://127.0.0.1:%1", "https://127.0.0.1", "https://127.0.0.1:%1.evil" })
            row(foreign, "/set.fcgi",
                QStringList{ "-H", "Origin: " + QString(foreign).replace("%1", QString::number(m_port)) }
                    + form("demo:values/i32", "77"),
                { "403", "Forms are taken from pages of this server only." });
        row("no origin", "/set.fcgi", form("demo:values/i32", "77"), { "403" });
        row("nothing refused was set", "/api/getData?path=demo:values/i32&roles=value", {}, { "200", "\"value\":-5}" });

        const QByteArray uri = "https://127.0.0.1:" + QByteArray::number(m_port) + "/closed.fcgi";
        row("wrong signature", "/closed.fcgi", { "-H", Signer("admin", "wrong").forGet(uri) },
            { "401", "\r\nWWW-Authenticate: HMAC_SHA256", "Forbidden" });
        row("local", "/closed.fcgi", {},
            { "200", "[0|0|0Open row,Default row,Protected row,Internal row,Last row,rowrowrow]" });
        row("remote", "remote:/closed.fcgi", {},
            { "200",
                "[<!-- error: demo:permissions/protected: Forbidden -->|<!-- error: demo:permissions/internal: "
                "Forbidden -->|<!-- error: demo:permissions/protected: Forbidden -->Open row,Default row,"
                "(Node requires authentication),(Node is internal),Last row,<!-- error: "
                "demo:permissionLists/protected: "
                "Forbidden -->]" });
        const QStringList remote{ "-H", "Origin: https://192.0.2.1:" + QString::number(m_port) };
        row("set by a remote client", "remote:/set.fcgi", remote + form("demo:permissions/default", "1"),
            { "200", "[$errorForbidden]" });
        row("set in the open", "remote:/set.fcgi", remote + form("demo:permissions/open", "1"), { "303" });

        row("the demo's page", "/status/", { "-L" },
            { "301", "\r\n\r\nHTTP/1.1 200", ">Quiet Harbour No. 1<", "of 500" });
        row("its form", "/status/index.fcgi?from=490", origin + QStringList{ "-d", "volume=44" },
            { "303", "/status/index.fcgi?from=490" });
        row("what it shows then", "/status/index.fcgi?from=490", {},
            { "200", "value=\"44\"", "No. 500<", "?from=480\"", "<span>Later" });
        for (const auto& [target, arguments, expected] : row) {
            const QByteArray reply = fetch(target, arguments);
            QVERIFY2(reply.startsWith("HTTP/1.1 " + expected.first()), reply);
            for (const QByteArray& part : expected.mid(1))
                QVERIFY2(reply.contains(part), reply + "\n has no " + part);
        }
    }

    // What is wrong stands in the log, and in no answer.
    void faults()
    {
        Rows<QByteArray> row;
        row("bad.fcgi:2:1: the attribute \"path\" is missing", "a\n<!--#get-->");
        row("bad.fcgi:1:1: there is no file \"../canary.txt\"", "<!--#include file='../canary.txt'-->");
        row("bad.fcgi:1:1: the file includes itself", "<!--#include file='bad.fcgi'-->");
        row("bad.inc:1:3: the page ends inside a tag", "<!--#include file='bad.inc'-->");
        row("bad.fcgi:1:1: the file cannot be read, or is longer", QByteArray(1024 * 1024 + 1, 'x'));
        m_root.write("bad.inc", "<p");
        for (const auto& [page] : row) {
            m_root.write("bad.fcgi", page);
            const QByteArray reply = fetch("/bad.fcgi");
            QVERIFY2(reply.startsWith("HTTP/1.1 500") && reply.endsWith("\r\n\r\nThe page cannot be shown."), reply);
            QVERIFY(m_device->log().contains(row.name()));
        }
    }

    void aPageFollowsEachOfItsFiles()
    {
        QVERIFY(fetch("/outer.fcgi").endsWith("\r\n\r\naleafb"));
        m_root.write("leaf.inc", "new leaf");
        QVERIFY(fetch("/outer.fcgi").endsWith("\r\n\r\nanew leafb"));
        QVERIFY(QFile::remove(m_root.file("leaf.inc")));
        QVERIFY(fetch("/outer.fcgi").startsWith("HTTP/1.1 500"));
    }

    // At any moment; the sanitizers see what is used afterwards.
    void aClientThatLeavesEndsThePage()
    {
        for (int milliseconds = 5; milliseconds < 60; milliseconds += 5) {
            QProcess client;
            client.start("curl", { "-sk", url("/many.fcgi") });
            client.waitForStarted();
            QTest::qSleep(milliseconds);
            client.kill();
            client.waitForFinished();
        }
        QVERIFY(fetch("/many.fcgi").startsWith("HTTP/1.1 200"));
    }

private:
    QString url(const QByteArray& target) const
    {
        if (target.startsWith("http:"))
            return m_device->baseUrl() + target.mid(5);
        const bool isRemote = target.startsWith("remote:");
        return QStringLiteral("https://%1:%2").arg(isRemote ? RemoteAddress : "127.0.0.1").arg(m_port)
            + target.mid(isRemote ? 7 : 0);
    }
    QByteArray fetch(const QByteArray& target, const QStringList& arguments = {}) const
    {
        return runTool("curl", QStringList{ "-sSki", "--path-as-is" } + arguments + QStringList{ url(target) }).output;
    }

    DocumentRoot m_root;
    std::unique_ptr<Device> m_device;
    int m_port = 0;
};

NAMESPACE_TEST_MAIN(PagesTest)

#include "PagesTest.moc"
