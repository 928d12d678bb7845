#include <QFile>
#include <QProcess>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include "HttpClient.h"

namespace {

/// Answers every request over TLS with "secret".
class TlsServer : public QTcpServer {
public:
    TlsServer(const QSslCertificate& certificate, const QSslKey& key) : m_certificate(certificate), m_key(key)
    {
        listen(QHostAddress::LocalHost);
    }
    bool asked = false;

private:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new QSslSocket(this);
        socket->setSocketDescriptor(descriptor);
        socket->setLocalCertificate(m_certificate);
        socket->setPrivateKey(m_key);
        connect(socket, &QSslSocket::readyRead, this, [this, socket] {
            asked = true;
            socket->readAll();
            socket->write("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nsecret");
            socket->disconnectFromHost();
        });
        socket->startServerEncryption();
    }

    QSslCertificate m_certificate;
    QSslKey m_key;
};

} // namespace

class HttpsClientTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        const QString certificate = m_directory.filePath(QStringLiteral("cert.pem"));
        const QString key = m_directory.filePath(QStringLiteral("key.pem"));
        QCOMPARE(QProcess::execute(QStringLiteral("openssl"),
                     { "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days",
                         "2", "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-keyout", key,
                         "-out", certificate }),
            0);
        QFile file(key);
        QVERIFY(file.open(QIODevice::ReadOnly));
        m_key = QSslKey(&file, QSsl::Ec);
        m_certificate = QSslCertificate::fromPath(certificate).value(0);
        QVERIFY(!m_key.isNull() && !m_certificate.isNull());
    }

    void certificateMustBeTheNames_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<bool>("trusted");
        QTest::addColumn<int>("status");
        const int broken = HttpClientResult::Unreachable;
        QTest::newRow("trusted and the name's") << "localhost" << true << 200;
        QTest::newRow("of another name") << "127.0.0.1" << true << broken;
        QTest::newRow("not trusted") << "localhost" << false << broken;
    }

    void certificateMustBeTheNames()
    {
        QFETCH(QString, host);
        QFETCH(bool, trusted);
        QFETCH(int, status);
        if (trusted)
            qputenv("SSL_CERT_FILE", m_directory.filePath(QStringLiteral("cert.pem")).toLocal8Bit());
        else
            qunsetenv("SSL_CERT_FILE");
        TlsServer server(m_certificate, m_key);

        HttpClientResult result;
        bool called = false;
        HttpClient::get(ZarkUrl(QStringLiteral("https://%1:%2/").arg(host).arg(server.serverPort())), {},
            [&](const HttpClientResult& answer) {
                called = true;
                result = answer;
            });
        QTRY_VERIFY(called);
        QCOMPARE(result.status, status);
        QCOMPARE(result.body, QByteArray(status == 200 ? "secret" : ""));
        QCOMPARE(server.asked, status == 200); // Nothing is asked of a server that is not the one.
    }

private:
    QTemporaryDir m_directory;
    QSslCertificate m_certificate;
    QSslKey m_key;
};

QTEST_GUILESS_MAIN(HttpsClientTest)
#include "HttpsClientTest.moc"
