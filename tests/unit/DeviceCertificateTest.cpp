#include <QtTest>

#include <sys/stat.h>

#include "CertificatePair.h"
#include "DeviceCertificate.h"
#include "Files.h"
#include "Rows.h"

namespace {

QByteArray openssl(const QStringList& arguments)
{
    return runTool("openssl", arguments).output;
}

QByteArray makePair(const QTemporaryDir& directory, const QString& name, const QString& subject)
{
    const QString key = directory.filePath(name + ".key");
    const QString certificate = directory.filePath(name + ".pem");
    openssl({ "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", certificate, "-subj", subject });
    return contentOf(certificate) + contentOf(key);
}

/// In front of the real tool in PATH: treats what matches `command` (a branch of the shell's case) on its own.
class ToolInFront {
public:
    explicit ToolInFront(const QByteArray& command) : m_path(qgetenv("PATH"))
    {
        writeFile(m_directory.filePath("openssl"),
            "#!/bin/sh\ncase $* in " + command + ";; esac\nPATH=${PATH#*:} exec openssl \"$@\"\n");
        QFile::setPermissions(m_directory.filePath("openssl"), QFile::Permissions(0x7700));
        qputenv("PATH", QFile::encodeName(m_directory.path()) + ':' + m_path);
    }
    ~ToolInFront() { qputenv("PATH", m_path); }

private:
    QTemporaryDir m_directory;
    QByteArray m_path;
};

} // namespace

/// What is made with the real tool, in a directory of the test's own.
class DeviceCertificateTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_authority = makePair(m_pairs, "authority", "/C=AT/ST=Tyrol/O=Maker/CN=Root of it all");
        QVERIFY(m_authority.contains("PRIVATE KEY"));
    }

    void extensionsNameEveryAddress()
    {
        Rows<QSet<QString>, QByteArray> row;
        using Set = QSet<QString>;
        row("both families", Set{ "192.0.2.7", "2001:db8::1" }, "IP:192.0.2.7,IP:2001:db8::1,IP:127.0.0.1");
        row("a zone", Set{ "fe80::1%eth0" }, "IP:fe80::1,IP:127.0.0.1");
        row("no address", Set{ "192.0.2.7", "", "x\nbasicConstraints = CA:TRUE" }, "IP:192.0.2.7,IP:127.0.0.1");
        for (const auto& [addresses, names] : row) {
            QCOMPARE(DeviceCertificate::extensions(addresses),
                "[v3_ca]\nbasicConstraints = CA:FALSE\nkeyUsage = digitalSignature, keyEncipherment\n"
                "extendedKeyUsage = serverAuth\nsubjectAltName = "
                    + names + '\n');
        }
    }

    void theSubjectFollowsTheAuthority()
    {
        Rows<QByteArray, QString> row;
        const QString fixed = "/C=AT/ST=Vienna/O=Orvanta/CN=Tidekit-device";
        row("name last", "subject=/C=DE/O=Maker/CN=Root 1\n", "/C=DE/O=Maker/CN=Tidekit-device");
        row("name first", "subject= /CN=Root/O=Maker\n", "/CN=Tidekit-device/O=Maker");
        row("two names", "subject=/CN=a/CN=b\n", "/CN=Tidekit-device/CN=Tidekit-device");
        row("no name", "subject=/O=Maker\n", "/O=Maker/CN=Tidekit-device");
        row("no subject", "warning: what?\n", fixed);
        row("nothing", {}, fixed);
        for (const auto& [answer, subject] : row) {
            QCOMPARE(DeviceCertificate::subjectFrom(answer), subject);
        }
    }

    void newAddressesKeepTheKey()
    {
        const QTemporaryDir work;
        DeviceCertificate certificate(m_authority, work.path());
        QVERIFY2(certificate.renew({ "192.0.2.7" }, &m_error), qPrintable(m_error));
        QCOMPARE(certificate.keyFile(), work.filePath("soup-key.pem"));
        QCOMPARE(certificate.certificateFile(), work.filePath("soup-cert.pem"));
        const QByteArray key = contentOf(certificate.keyFile());
        QVERIFY(key.contains("PRIVATE KEY"));

        // Directories for temporary files are cleaned. Another process was killed at work.
        QFile::remove(certificate.keyFile());
        QVERIFY(QDir(work.path()).mkpath("soup-dev-killed/x"));
        certificate.lock();
        QVERIFY2(certificate.renew({ "2001:db8::9" }, &m_error), qPrintable(m_error));
        QCOMPARE(contentOf(certificate.keyFile()), key);
        const QString file = certificate.certificateFile();
        const QByteArray text = openssl({ "x509", "-in", file, "-noout", "-text" });
        QVERIFY2(text.contains("IP Address:2001:DB8:0:0:0:0:0:9, IP Address:127.0.0.1\n"), text.constData());
        QVERIFY(text.contains("O = Maker, CN = Tidekit-device"));
        QVERIFY(openssl({ "verify", "-CAfile", m_pairs.filePath("authority.pem"), file }).endsWith("OK\n"));
        QVERIFY(certificatePairFault(contentOf(file), key).isEmpty());
        QCOMPARE(QDir(work.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
            QStringList({ "soup-cert.pem", "soup-dev-csr.pem", "soup-dev.lock", "soup-key.pem" }));
        for (const QFileInfo& info : QDir(work.path()).entryInfoList(QDir::Files))
            QCOMPARE(info.permissions() & 0x77, QFile::Permissions());
    }

    void preparedNamesLeadNowhere()
    {
        for (const char* name : { "soup-key.pem", "soup-dev-csr.pem", "soup-cert.pem" }) {
            const QTemporaryDir work;
            const QString victim = m_pairs.filePath("victim");
            writeFile(victim, "untouched");
            QVERIFY(QFile::link(victim, work.filePath(name)));
            DeviceCertificate certificate(m_authority, work.path());
            QVERIFY2(certificate.renew({ "192.0.2.7" }, &m_error), qPrintable(m_error));
            QCOMPARE(contentOf(victim), QByteArray("untouched"));

            // A file that others can read, as somebody who wants the key would leave it.
            QFile::remove(work.filePath(name));
            writeFile(work.filePath(name), {});
            QFile prepared(work.filePath(name));
            QVERIFY(prepared.setPermissions(QFile::Permissions(0x6666)) && prepared.open(QIODevice::ReadOnly));
            QVERIFY2(certificate.renew({ "192.0.2.8" }, &m_error), qPrintable(m_error));
            QCOMPARE(prepared.readAll(), QByteArray());
        }
    }

    void failuresAreNamed()
    {
        Rows<QByteArray, QString, QString> row;
        row("no authority", "x", "", "Unable to create device key: ");
        row("a directory at the key's name", m_authority, "soup-key.pem", "Unable to create device key: ");
        row("a directory at the request's name", m_authority, "soup-dev-csr.pem", "Unable to create csr: ");
        row("a directory at the certificate's name", m_authority, "soup-cert.pem", "Unable to create device key: ");
        for (const auto& [authority, prepare, error] : row) {
            const QTemporaryDir work;
            QVERIFY(prepare.isEmpty() || QDir(work.path()).mkdir(prepare));
            DeviceCertificate certificate(authority, work.path());
            QString said;
            QVERIFY(!certificate.renew({ "192.0.2.7" }, &said));
            QVERIFY2(said.startsWith(error) && said.size() > error.size(), qPrintable(said));
            QVERIFY(certificate.certificateFile().isEmpty());
        }
    }

    void aDirectoryInWhichOthersReplaceFilesIsRefused()
    {
        const QTemporaryDir work;
        ::chmod(QFile::encodeName(work.path()).constData(), 0777);
        QVERIFY(!DeviceCertificate(m_authority, work.path()).renew({ "192.0.2.7" }, &m_error));
        ::chmod(QFile::encodeName(work.path()).constData(), 01777);
        QVERIFY2(DeviceCertificate(m_authority, work.path()).renew({ "192.0.2.7" }, &m_error), qPrintable(m_error));
    }

    void whatTheToolCutsShortIsAFailureAndTriedAgain()
    {
        // No key, half a key, no certificate.
        for (const char* command :
            { "genrsa*) : >$3; exit 0", "genrsa*) echo -----BEGIN >$3; exit 0", "*x509*-req*) exit 0" }) {
            const QTemporaryDir work;
            DeviceCertificate certificate(m_authority, work.path());
            {
                const ToolInFront tool(command);
                QVERIFY(!certificate.renew({ "192.0.2.7" }, &m_error));
            }
            QVERIFY2(m_error.startsWith("Unable to create device key: "), qPrintable(m_error));
            QVERIFY2(certificate.renew({ "192.0.2.7" }, &m_error), qPrintable(m_error));
        }
    }

    void anAuthorityWithoutReadableSubjectStillSigns()
    {
        const QTemporaryDir work;
        DeviceCertificate certificate(m_authority, work.path());
        const ToolInFront tool("*-subject*) echo no; exit 1");
        QVERIFY2(certificate.renew({ "192.0.2.7" }, &m_error), qPrintable(m_error));
        const QByteArray text = openssl({ "x509", "-in", certificate.certificateFile(), "-noout", "-text" });
        QVERIFY2(text.contains("C = AT, ST = Vienna, O = Orvanta, CN = Tidekit-device"), text.constData());
        QVERIFY(text.contains("Public-Key: (2048 bit)") && text.contains("Algorithm: sha256WithRSA"));
    }

    void pairs()
    {
        Rows<QByteArray, QByteArray, QString> row;
        makePair(m_pairs, "other", "/CN=other");
        openssl({ "ecparam", "-genkey", "-name", "prime256v1", "-out", m_pairs.filePath("ec.key") });
        openssl({ "pkey", "-in", m_pairs.filePath("other.key"), "-aes128", "-passout", "pass:abcd", "-out",
            m_pairs.filePath("locked.key") });
        const auto file = [this](const char* name) {
            return contentOf(m_pairs.filePath(name));
        };
        row("belong together", file("other.pem"), file("other.key"), "");
        row("a chain", file("other.pem") + file("authority.pem"), file("other.key"), "");
        row("another key", file("other.pem"), file("authority.key"), "belong");
        row("a key of another kind", file("other.pem"), file("ec.key"), "belong");
        row("a key with a password", file("other.pem"), file("locked.key"), "password");
        row("no key", file("other.pem"), {}, "");
        row("no certificate", {}, file("ec.key"), "");
        row("a key for a certificate", file("other.key"), file("other.key"), "certificate is not");
        row("a certificate for a key", file("other.pem"), file("other.pem"), "key is not");
        for (const auto& [certificate, key, fault] : row) {
            const QString found = certificatePairFault(certificate, key);
            QCOMPARE(found.isEmpty(), fault.isEmpty());
            QVERIFY2(found.contains(fault), qPrintable(found));
        }
    }

private:
    QTemporaryDir m_pairs;
    QByteArray m_authority;
    QString m_error;
};

QTEST_GUILESS_MAIN(DeviceCertificateTest)

#include "DeviceCertificateTest.moc"
