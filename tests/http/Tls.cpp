#include "Tls.h"

#include <QTemporaryDir>

#include "Files.h"

TestCertificate makeCertificate(const QByteArray& key)
{
    const QTemporaryDir directory;
    const QString certificate = directory.filePath("certificate.pem");
    const QString keyFile = directory.filePath("key.pem");
    const QByteArray own = key.isEmpty() ? runTool("openssl", { "genrsa", "2048" }).output : key;
    writeFile(keyFile, own);
    runTool("openssl",
        { "req", "-x509", "-key", keyFile, "-out", certificate, "-subj", "/CN=test", "-days", "2", "-addext",
            "subjectAltName=IP:127.0.0.1" });
    return { contentOf(certificate), own };
}

QStringList httpsSettings(int port, const TestCertificate& pair)
{
    return { QStringLiteral("settings:webserver/httpsPort=%1").arg(port), "settings:webserver/httpsUseDeviceCert=false",
        "settings:webserver/httpsCert=" + pair.certificate, "settings:webserver/httpsPrivateKey=" + pair.key };
}

QByteArray handshake(int port, const QStringList& arguments, const QByteArray& input)
{
    const QStringList target{ "s_client", "-connect", QStringLiteral("127.0.0.1:%1").arg(port) };
    return runTool("openssl", target + arguments, input).output;
}

bool isTrusted(int port, const QString& authority, const QString& address)
{
    // The tool's text is no help: a handshake that ends without a certificate "verifies" as well.
    const QByteArray said = handshake(port, { "-CAfile", authority, "-verify_ip", address });
    return said.contains("BEGIN CERTIFICATE") && said.contains("Verify return code: 0");
}

QByteArray servedCertificate(int port)
{
    const QByteArray said = handshake(port);
    const QByteArray end = "-----END CERTIFICATE-----\n";
    const int from = said.indexOf("-----BEGIN CERTIFICATE-----");
    return from < 0 ? QByteArray() : said.mid(from, said.indexOf(end) + end.size() - from);
}

QByteArray certificateText(const QByteArray& pem, const QStringList& arguments)
{
    const ToolResult said = runTool("openssl", QStringList{ "x509", "-noout" } + arguments, pem);
    return said.status == 0 ? said.output : QByteArray();
}
