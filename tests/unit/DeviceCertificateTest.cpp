#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

#include "CertificatePair.h"
#include "DeviceCertificate.h"
#include "ZarkProcessHandler.h"

namespace {

QByteArray contentOf(const QString& name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void write(const QString& name, const QByteArray& content)
{
    QFile file(name);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
}

QByteArray openssl(const QStringList& arguments)
{
    return ZarkProcessHandler::startSync("openssl", arguments, 10000).getData();
}

QByteArray makePair(const QTemporaryDir& directory, const QString& name, const QString& subject)
{
    const QString key = directory.filePath(name + ".key");
    const QString certificate = directory.filePath(name + ".pem");
    openssl({ "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", certificate, "-subj", subject });
    return contentOf(certificate) + contentOf(key);
}

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

    void newAddressesKeepTheKey()
    {
        const QTemporaryDir work;
        DeviceCertificate certificate(m_authority, work.path());
        QString error;
        QVERIFY2(certificate.renew({ "192.0.2.7" }, &error), qPrintable(error));
        QCOMPARE(certificate.keyFile(), work.filePath("soup-key.pem"));
        QCOMPARE(certificate.certificateFile(), work.filePath("soup-cert.pem"));
        const QByteArray key = contentOf(certificate.keyFile());
        QVERIFY(key.contains("PRIVATE KEY"));

        // Directories for temporary files are cleaned.
        QFile::remove(certificate.keyFile());
        QVERIFY2(certificate.renew({ "2001:db8::9" }, &error), qPrintable(error));
        QCOMPARE(contentOf(certificate.keyFile()), key);
        const QString file = certificate.certificateFile();
        const QByteArray text = openssl({ "x509", "-in", file, "-noout", "-text" });
        QVERIFY2(text.contains("IP Address:2001:DB8:0:0:0:0:0:9, IP Address:127.0.0.1\n"), text.constData());
        QVERIFY(text.contains("O = Maker, CN = Tidekit-device"));
        QVERIFY(openssl({ "verify", "-CAfile", m_pairs.filePath("authority.pem"), file }).endsWith("OK\n"));
        QVERIFY(certificatePairFault(contentOf(file), key).isEmpty());
        QCOMPARE(QDir(work.path()).entryList(QDir::Files),
            QStringList({ "soup-cert.pem", "soup-dev-csr.pem", "soup-key.pem" }));
        for (const QFileInfo& info : QDir(work.path()).entryInfoList(QDir::Files))
            QCOMPARE(info.permissions() & 0x77, QFile::Permissions());
    }

    void preparedNamesLeadNowhere_data()
    {
        QTest::addColumn<QString>("name");
        for (const char* name : { "soup-key.pem", "soup-dev-csr.pem", "soup-cert.pem" })
            QTest::newRow(name) << name;
    }

    void preparedNamesLeadNowhere()
    {
        QFETCH(QString, name);
        const QTemporaryDir work;
        const QString victim = m_pairs.filePath("victim");
        write(victim, "untouched");
        QVERIFY(QFile::link(victim, work.filePath(name)));
        DeviceCertificate certificate(m_authority, work.path());
        QString error;
        QVERIFY2(certificate.renew({ "192.0.2.7" }, &error), qPrintable(error));
        QCOMPARE(contentOf(victim), QByteArray("untouched"));

        // A file that others can read, as somebody who wants the key would leave it.
        QFile::remove(work.filePath(name));
        write(work.filePath(name), {});
        QFile prepared(work.filePath(name));
        QVERIFY(prepared.setPermissions(QFile::Permissions(0x6666)) && prepared.open(QIODevice::ReadOnly));
        QVERIFY2(certificate.renew({ "192.0.2.8" }, &error), qPrintable(error));
        QCOMPARE(prepared.readAll(), QByteArray());
    }

    void aDirectoryInWhichOthersReplaceFilesIsRefused()
    {
        const QTemporaryDir work;
        ::chmod(QFile::encodeName(work.path()).constData(), 0777);
        QString error;
        QVERIFY(!DeviceCertificate(m_authority, work.path()).renew({ "192.0.2.7" }, &error));
        ::chmod(QFile::encodeName(work.path()).constData(), 01777);
        QVERIFY2(DeviceCertificate(m_authority, work.path()).renew({ "192.0.2.7" }, &error), qPrintable(error));
    }

    void pairs_data()
    {
        QTest::addColumn<QByteArray>("certificate");
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QString>("fault");
        makePair(m_pairs, "other", "/CN=other");
        openssl({ "ecparam", "-genkey", "-name", "prime256v1", "-out", m_pairs.filePath("ec.key") });
        openssl({ "pkey", "-in", m_pairs.filePath("other.key"), "-aes128", "-passout", "pass:abcd", "-out",
            m_pairs.filePath("locked.key") });
        const auto file = [this](const char* name) {
            return contentOf(m_pairs.filePath(name));
        };
        QTest::newRow("belong together") << file("other.pem") << file("other.key") << "";
        QTest::newRow("another key") << file("other.pem") << file("authority.key") << "belong";
        QTest::newRow("a key with a password") << file("other.pem") << file("locked.key") << "password";
        QTest::newRow("no certificate") << QByteArray() << file("ec.key") << "";
        QTest::newRow("a key for a certificate") << file("other.key") << file("other.key") << "certificate is not";
        QTest::newRow("a certificate for a key") << file("other.pem") << file("other.pem") << "key is not";
    }

    void pairs()
    {
        QFETCH(QByteArray, certificate);
        QFETCH(QByteArray, key);
        QFETCH(QString, fault);
        const QString found = certificatePairFault(certificate, key);
        QCOMPARE(found.isEmpty(), fault.isEmpty());
        QVERIFY2(found.contains(fault), qPrintable(found));
    }

private:
    QTemporaryDir m_pairs;
    QByteArray m_authority;
};

QTEST_GUILESS_MAIN(DeviceCertificateTest)

#include "DeviceCertificateTest.moc"
