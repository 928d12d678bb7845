#include <QtTest>

#include <csignal>

#include "Device.h"
#include "Rows.h"
#include "Tls.h"
#include "Upstream.h"

namespace {

const char* const Page = "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: 4\r\n\r\n<hi>";
const char* const OneRow = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 44\r\n\r\n"
                           "{\"rows\":[[1]],\"rowsCount\":2,\"rowsVersion\":7}";
const char* const Outdated = "HTTP/1.1 500 \r\nContent-Type: application/json\r\nContent-Length: 53\r\n\r\n"
                             "{\"error\":{\"name\":\"outdatedVersion\",\"message\":\"late\"}}";
const char* const Cut = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 9\r\n\r\n[1,";

} // namespace

/// The program itself, against devices that judge what it sends.
class ZarkctlTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        const QString authority = m_device.stateDirectory() + QStringLiteral("/authority.pem");
        QTRY_VERIFY_WITH_TIMEOUT(isTrusted(m_httpsPort, authority), 60000); // Its certificate is made first.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        const auto set = [&environment](const char* name, const QByteArray& value) {
            environment.insert(QLatin1String(name), QString::fromLocal8Bit(value));
        };
        set("Z", ZARKCTL);
        set("P", ZARKCTL " --user admin --password-file p");
        set("HOME", m_directory.path().toLocal8Bit());
        set("ZARK_URL", m_device.baseUrl());
        set("A", m_device.baseUrl());
        set("B", m_other.baseUrl());
        set("S", "https://127.0.0.1:" + QByteArray::number(m_httpsPort));
        set("CA", authority.toLocal8Bit());
        set("X", "http://127.0.0.1:" + QByteArray::number(m_foreign.port()));
        set("MAN", MAN_PAGE);
        set("SHELL", "/bin/bash"); // Which script(1) starts.
        environment.remove(QStringLiteral("NO_COLOR"));
        environment.remove(QStringLiteral("XDG_CONFIG_HOME"));
        environment.insert(QStringLiteral("TERM"), QStringLiteral("xterm"));
        m_shell.setProcessEnvironment(environment);
        m_shell.setWorkingDirectory(m_directory.path());
    }

    // Command lines, as a shell reads them. $Z is zarkctl ($P with the password in the file p), which asks the device
    // $A; $B is another device, $S the first over HTTPS, $X a server that is none. The directory is the test's own.
    // Rows are a story: each finds what the ones before it left. Outputs are patterns that fit somewhere, "" for none
    // at all, null for any.
    void says()
    {
        Rows<const char*, int, const char*, const char*> rows;
        const auto row = [&rows](const char* name, const char* line, int status, const char* output,
                             const char* errors = "") {
            rows(name, line, status, output, errors);
        };
        row("the roots", "$Z ls", 0, "^PATH +TYPE +TITLE +VALUE\n[^$]*\nplayer:player +container +Player\n");
        row("a worker's nodes", "$Z ls demo:", 0, "\ndemo:values +container +Values\ndemo:volatile");
        row("a terminal's colours", "script -qc '$Z ls demo:' o", 0, "\033\\[1mPATH");
        row("and its width",
            "script -qc 'stty cols 40; NO_COLOR=1 $Z ls player:player' o | LC_ALL=C.UTF-8 grep -c '.\\{42\\}'", 1,
            "^0$");
        row("no colours", "NO_COLOR=1 script -qc '$Z ls demo:' o | grep -c '\033'", 1, "^0$");
        row("every digit, bare", "$Z get -r demo:values/i64", 0, "^9007199254740993\n$");
        row("a pattern", "$Z get --roles value 'demo:v*/*' -o jsonl | wc -l", 0, "^8$");
        row("a pattern of nothing", "$Z get 'demo:values/x*'", 4, "", "fits no node");
        row("a path's own escapes", "$Z get 'a:ü&x %2F+'", 4, "", "^zarkctl: a:ü&x %2F\\+: notFound: ");
        row("a tree without its secrets", "$Z tree demo:permissions/", 0,
            "\n└── demo:permissions/internal = \\(secret\\)\n$");
        row("all pages of a list", "$Z rows demo:lists/large --roles title | tail -n +2 | cut -c 8-11 | uniq | wc -l",
            0, "^1$");
        row("the rows that are asked for", "$Z rows demo:lists/large --from 998 --to 1001 -o jsonl --roles title", 0,
            "^\\{\"index\":998,\"title\":\"Row 998\"\\}\n([^\n]*\n){2}\\{\"index\":1001,\"title\":\"Row 1001\"\\}\n$");

        row("old and new", "$Z set demo:values/i32 -5", 0, "^demo:values/i32: 7 → -5\n$");
        row("a text like a number", "$Z set settings:webserver/defaultLocation 42 -o json", 0,
            "\"new\":\\{\"type\":\"string\",\"value\":\"42\"");
        row("a text from standard input", "printf '@x\\n' | $Z set settings:webserver/defaultLocation -", 0,
            "42 → @x\n$");
        row("a text as it is", "$Z set settings:webserver/defaultLocation --literal -- -", 0, "@x → -\n$");
        row("bytes of a file", "printf '\\0\\377' >b; $Z set demo:values/bytes @b", 0, "AAEC/w== → AP8=");
        row("64 bits", "$Z set demo:values/i64 9223372036854775807 && $Z get -r demo:values/i64", 0,
            "\n9223372036854775807\n$");
        row("nothing by a dry run", "$Z set -n demo:values/i32 9; $Z get -r demo:values/i32", 0,
            "-5 → 9 \\(not set\\)\n-5\n$");
        row("out of range", "$Z set demo:values/i32 250", 3, "", "outOfRange: the value must be at most 100\n$");
        row("off the step", "$Z set demo:values/double 6.3", 3, "",
            "^zarkctl: demo:values/double: outOfRange: The value must be a multiple");
        row("another type", "$Z set demo:values/i32 x", 3, "", "invalidType: this is no i32; it takes a whole");
        row("no UTF-8", "printf '\\377' >n; $Z set settings:webserver/defaultLocation @n", 3, "", "invalidType");
        row("a command is called", "$Z set player:player/control play", 3, "", "zarkctl call");
        row("a secret stays one", "$Z set settings:webserver/httpsPrivateKey -----BEGIN-geheim", 1, "",
            "^(?!.*geheim)zarkctl: settings");
        row("so does a value with a minus", "$Z set x:y --geheim", 2, "", "^zarkctl: unknown option; -- goes before");
        row("which is no wish for help", "$Z set x:y -hunter2", 2, "", "^zarkctl: unknown option: -h\n$");
        row("no such authority", "$Z --ca none ls", 2, "", "^zarkctl: none: No such file");
        row("a signed line in every form", "$Z --user admin --empty-password -o json sign /x", 0, "^curl -H ");
        row("so does another's option", "$Z get --password=geheim x", 2, "", "^zarkctl: unknown option: --password\n$");
        row("a command", "$Z call player:player/control play; $Z call player:player/playlistRemove '{\"index\":0}'", 0,
            "^playing\n");

        row("a full disk", "$Z ls >/dev/full", 1, "", "standard output: No space left");
        row("a closed pipe", "$Z rows demo:lists/large | head -1; echo ${PIPESTATUS[0]}", 0, "\n1\n$", "Broken pipe");
        row("watch begins with what is",
            "$Z watch --count 2 demo:values/i32 >w & sleep 1; $Z set demo:values/i32 4; wait; cat w", 0,
            "  -5\n[^\n]*demo:values/i32  4\n$");
        row("watch ends with its reader", "timeout 9 $Z watch demo:values/i32 | head -1; echo ${PIPESTATUS[0]}", 0,
            "  4\n1\n$");
        row("a stream into a pipe", "$Z stream player:player/audio | head -c 4; echo ${PIPESTATUS[0]}", 0, "^RIFF1\n$");
        row("no stream", "$Z stream demo:values", 4, "", "notFound");

        row("no terminal to ask on", "setsid -w $Z --user admin ls </dev/null", 2, "",
            "no terminal.*--password-file FILE");
        row("no empty password by chance", "echo | $Z --user admin --password-file - ls", 2, "", "first line is empty");
        row("the first password, twice",
            "(sleep 1; printf 'open sesame\\n'; sleep 1; printf 'open sesame\\n'; sleep 1) | "
            "script -qec '$Z --user admin --empty-password passwd' o",
            0, "^(?![^$]*sesame)New password: \r\nOnce more: \r\nthe password of admin is changed");
        row("another one", "echo 'open sesame' >p; echo another >q; $Z --user admin --password-file q login", 3, "",
            "does not know this user");
        row("a profile", "chmod 644 p; $P login -o json && stat -c %a $HOME/.config/zarkctl/default.json", 0,
            "\"profile\":\"default\",[^\n]*\n600\n$");
        row("is used by itself", "unset ZARK_URL; $Z set demo:permissions/protected 5", 0, "0 → 5\n$");
        row("is read by its owner alone", "chmod 640 $HOME/.config/zarkctl/default.json; $Z -p default ls", 2, "",
            "others can read it");
        row("a signed request for curl", "eval \"$($P sign '/api/getData?path=demo:values/%693%32&roles=value') -s\"",
            0, "\"value\":4");
        row("and one with a body",
            "eval \"$($P sign /api/setData '{\"path\":\"demo:values/i32\",\"role\":\"value\",\"value\":8}') -s\"", 0,
            "\"value\":8");
        row("why one is refused",
            "h=$($P sign /api/x | grep -o 'HMAC[^'\"\\'\"']*'); $P sign --explain \"$h\" /api/x body", 1,
            "^the body was not signed\n");

        row("an upload",
            "head -c 3000000 /dev/urandom >i; $Z upload i | grep -o '[0-9a-f]*$' >s; sha256sum <i | cut -c-64 | cmp s "
            "-",
            0, "^$");
        row("its progress", "script -qec '$Z upload i' o | head -c 20", 0, "reading \\[|sending \\[");
        row("one that is refused", "$Z set settings:webserver/limits/updateBytes 9; $Z upload i", 3, nullptr,
            "too large. \\(HTTP 413\\)");
        row("no image", "$Z upload /etc", 2, "", "no regular file");

        row("the same bytes", "$Z dump demo: >d; $Z dump demo: -o json | cmp - d && grep -c internal d", 1, "^0$");
        row("no secrets", "$Z dump settings: | grep -Ec 'Key|users|httpsCert'", 1, "^0$");
        row("restored in part is restored not at all",
            "sed 's/\"value\":true/\"value\":false/;s/21.5/21.7/' d >e; $Z restore e; $Z get -r demo:values/bool", 0,
            "^true\n$", "multiple of 0.5[^$]*set back");
        row("types come first", "sed 's/\"value\":21.5/\"value\":\"x\"/' d >e; $Z restore e", 3, "", "nothing was set");
        row("what differs", "$Z set demo:values/i32 33 >/dev/null; $Z diff d", 1,
            "^- demo:values/i32: 8\n\\+ demo:values/i32: 33\n$");
        row("is set back", "$Z restore d && $Z diff d", 0, "33 → 8\n1 of [0-9]+ nodes set\n$");

        row("two devices, side by side", "$Z -u $A -u $B get demo:values/i32 demo:values/bool", 0,
            "PATH +127[^ ]+ +127[^ ]+ +SAME\ndemo:values/i32 +8 +7 +no\ndemo:values/bool +true +true +yes\n");
        row("and one that is away", "printf '%s # a\\n127.0.0.1:1\\n%s\\n' $A $B >f; $Z --urls f set demo:values/i32 9",
            5, ": 8 → 9\n[^$]*: 7 → 9\n", "^zarkctl: 127.0.0.1:1: ");
        row("their differences", "$Z -u $A -u $B diff demo:values", 1,
            "^- demo:values/bytes: AP8=\n\\+ demo:values/bytes: AAEC/w==\n");
        row("a dump and two devices", "$Z -u $A -u $B diff d", 1,
            "^127[^ ]+: - demo:values/i32: 8\n127[^ ]+: \\+ demo:values/i32: 9\n[^$]*: - demo:values/bytes: AP8=\n");
        row("metrics", "$Z metrics -o json -f m; head -c 2 m; $Z -u $A -u 127.0.0.1:1 metrics -f m demo:values; cat m",
            0,
            "^\\[\\{# HELP[^$]*zark_up\\{device=\"127[^\n]+\"\\} 1\nzark_up[^\n]+ 0\n# HELP zark_demo_values_bool "
            "Switch\n"
            "# TYPE zark_demo_values_bool gauge\nzark_demo_values_bool\\{path=\"demo:values/bool\",device=[^\n]+\\} 1\n"
            "[^$]*# EOF\n$",
            "127.0.0.1:1");

        row("an unknown authority", "$Z -u $S ls", 5, "", "does not know; --ca FILE");
        row("another name", "$Z -u ${S/127.0.0.1/localhost} --ca $CA ls", 5, "", "is for another name");
        row("a known one",
            "$Z -u $S --ca $CA cert verify && $Z -u $S --ca $CA cert trust && $Z -u $S get -r demo:values/i32", 0,
            "\n9\n$");
        row("no TLS there", "$Z -u ${A/http/https} --timeout 1 ls", 5, "", "is it http://");
        row("TLS alone there", "$Z -u ${S/https/http} ls", 5, "", "is it https://");
        row("nothing but silence there", "timeout 5 $Z -u $X --timeout 1 call g:h", 5, "", "no answer in time");
        row("nobody there", "$Z -u 127.0.0.1:1 ls", 5, "", "connect");
        row("one at a time", "$Z -u $A -u $B dump", 2, "", "takes one device at the most");
        row("a portal", "$Z -u $X get a:b", 5, "", "no answer of a device \\(HTTP 200, text/html\\)");
        row("half an answer", "$Z -u $X get c:d", 5, "", "broke off");
        row("a list that never rests", "$Z -u $X rows e:f", 1, "", "faster than it can be read");

        row("help",
            "for c in $($Z __complete ''); do $Z help $c | grep '^usage: zarkctl '$c >/dev/null || echo $c; done", 0,
            "^$");
        row("all of it in the man page",
            "for c in $($Z __complete ''); do for w in \"Cm $c\" $($Z __complete $c -); do grep -q -e \"${w#-}\" $MAN "
            "|| echo $w; done; done",
            0, "");
        row("usage", "$Z get; $Z ls -o xml; $Z rows a:b --from -1; $Z ls --count 1", 2, "",
            "get PATH...\n.*takes one of table, json, jsonl\n.*number from 0 up\n.*ls takes no option --count\n$");
        row("completion in bash",
            ". <($Z completion bash); compopt() { :; }; COMP_WORDBREAKS=:; COMP_LINE='zarkctl ls demo:val'; "
            "COMP_POINT=99; PATH=${Z%/*}:$PATH; _zarkctl; echo ${COMPREPLY[@]}",
            0, "^values/\n$");
        row("and of what is no path", "$Z __complete help pa; $Z __complete set demo:values/string l", 0,
            "^passwd\nlarge\n$");
        for (const auto& [line, status, output, errors] : rows) {
            start(line);
            QVERIFY(m_shell.waitForFinished(30000));
            const QString said = QString::fromUtf8(m_shell.readAllStandardOutput());
            const QString complaints = QString::fromUtf8(m_shell.readAllStandardError());
            QVERIFY2(!output || fits(output, said), qPrintable(said + QStringLiteral(" / ") + complaints));
            QVERIFY2(fits(errors, complaints), qPrintable(complaints));
            QCOMPARE(m_shell.exitCode(), status);
        }
    }

    void watchSurvivesARestart()
    {
        start("$Z -u $B watch --count 3 -o jsonl demo:volatile/counter");
        QTRY_VERIFY_WITH_TIMEOUT(m_shell.bytesAvailable() > 0 || m_shell.waitForReadyRead(10), 5000);
        QCOMPARE(m_other.stop(SIGTERM), 0);
        m_shell.setReadChannel(QProcess::StandardError);
        QTRY_VERIFY_WITH_TIMEOUT(m_shell.peek(999).contains("trying again in 1 s\n"), 9000);
        QVERIFY(m_other.start());
        for (int value = 1; value < 200 && m_shell.state() != QProcess::NotRunning; ++value) {
            QCOMPARE(m_other.set("demo:volatile/counter", QByteArray::number(value)), 200);
            m_shell.waitForFinished(100);
        }
        QCOMPARE(m_shell.exitCode(), 0);
        QCOMPARE(
            m_shell.readAllStandardOutput().count("{\"path\":\"demo:volatile/counter\",\"roles\":{\"timestamp\":"), 3);
        QVERIFY(m_shell.readAllStandardError().contains("subscribing again\n"));
    }

private:
    static bool fits(const char* pattern, const QString& text)
    {
        return *pattern ? QRegularExpression(QString::fromUtf8(pattern)).match(text).hasMatch() : text.isEmpty();
    }

    void start(const char* line)
    {
        m_shell.start(QStringLiteral("bash"), { QStringLiteral("-c"), QString::fromUtf8(line) });
    }

    const int m_httpsPort = Device::freePort();
    Device m_device{ { QStringLiteral("settings:webserver/httpsPort=%1").arg(m_httpsPort) } };
    Device m_other;
    Upstream m_foreign{ { { "/api/getData?path=a:b&roles=title,value", { Page } },
        { "/api/getData?path=c:d&roles=title,value", { Cut } }, { "/api/setData", { {}, {}, 0, true } },
        { "/api/getRows?path=e:f&roles=title,value&from=0&to=999&version=0", { OneRow } },
        { "/api/getRows?path=e:f&roles=title,value&from=1&to=1&version=7", { Outdated } } } };
    QTemporaryDir m_directory;
    QProcess m_shell;
};

QTEST_GUILESS_MAIN(ZarkctlTest)
#include "ZarkctlTest.moc"
