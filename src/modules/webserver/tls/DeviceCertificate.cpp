#include "DeviceCertificate.h"

#include <QFile>
#include <QHostAddress>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>

#include "WebserverLog.h"
#include "ZarkProcessHandler.h"

namespace {

constexpr int ToolTimeoutMilliseconds = 5000;
constexpr int LockTimeoutMilliseconds = 5000;
const char CommonName[] = "/CN=Tidekit-device";
const char FixedSubject[] = "/C=AT/ST=Vienna/O=Orvanta/CN=Tidekit-device";

ZarkProcessResult openssl(const QStringList& arguments)
{
    return ZarkProcessHandler::startSync(QStringLiteral("openssl"), arguments, ToolTimeoutMilliseconds);
}

bool failed(QString* error, const char* what, const QByteArray& output)
{
    *error = QString::fromUtf8(what + output);
    dbglog_error(webserverLog(), *error);
    return false;
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

} // namespace

DeviceCertificate::DeviceCertificate(const QString& authorityPem, const QString& directory)
    : m_authorityPem(authorityPem), m_directory(directory), m_key(directory + QStringLiteral("/soup-key.pem")),
      m_certificate(directory + QStringLiteral("/soup-cert.pem")),
      m_request(directory + QStringLiteral("/soup-dev-csr.pem"))
{
}

std::unique_ptr<PrivateFileLock> DeviceCertificate::lock() const
{
    dbglog_scopedFunction(webserverLog());
    auto lock =
        std::make_unique<PrivateFileLock>(m_directory + QStringLiteral("/soup-dev.lock"), LockTimeoutMilliseconds);
    if (!lock->isLocked())
        dbglog_warn(webserverLog(), "Making the device certificate without a lock on " << m_directory);
    return lock;
}

bool DeviceCertificate::renew(const QSet<QString>& addresses, QString* error)
{
    dbglog_scopedFunction(webserverLog());
    if (!provideKey(error))
        return false;
    // In a directory of their own: the tool writes the authority's serial number next to its certificate.
    const QTemporaryDir temporary;
    const QString authorityFile = temporary.filePath(QStringLiteral("authority.pem"));
    const QString extensionFile = temporary.filePath(QStringLiteral("extensions.cnf"));
    if (!temporary.isValid() || !writeFile(authorityFile, m_authorityPem.toUtf8())
        || !writeFile(extensionFile, extensions(addresses)))
        return failed(error, "Unable to create temp files!", {});
    const QString name = subject(authorityFile);
    dbglog_info(webserverLog(), "Using device-cert subject: " << name);
    return makeRequest(name, error) && sign(authorityFile, extensionFile, error);
}

bool DeviceCertificate::provideKey(QString* error)
{
    static const char what[] = "Unable to create device key: ";
    QString reason;
    // The key that was made before, or an empty file for the tool to write into.
    if (!m_key.create(m_keyPem, &reason))
        return failed(error, what, reason.toUtf8());
    if (!m_keyFile.isEmpty())
        return true;
    const ZarkProcessResult made =
        openssl({ QStringLiteral("genrsa"), QStringLiteral("-out"), m_key.path(), QStringLiteral("2048") });
    if (!made.finishedOk())
        return failed(error, what, made.getData());
    if (!m_key.read(&m_keyPem, &reason))
        return failed(error, what, reason.toUtf8());
    m_keyFile = m_key.path();
    return true;
}

QString DeviceCertificate::subject(const QString& authorityFile) const
{
    const ZarkProcessResult asked =
        openssl({ QStringLiteral("x509"), QStringLiteral("-noout"), QStringLiteral("-subject"),
            QStringLiteral("-nameopt"), QStringLiteral("compat"), QStringLiteral("-in"), authorityFile });
    if (asked.finishedOk())
        return subjectFrom(asked.getData());
    dbglog_error(webserverLog(), "Unable to query CA subject: " << asked.getData());
    return QString::fromLatin1(FixedSubject);
}

QString DeviceCertificate::subjectFrom(const QByteArray& answer)
{
    dbglog_scopedFunction(webserverLog());
    static const QRegularExpression commonName(QStringLiteral("/CN=[^/]+"));
    const QByteArray key = QByteArrayLiteral("subject=");
    if (!answer.startsWith(key))
        return QString::fromLatin1(FixedSubject);
    QString subject = QString::fromUtf8(answer.mid(key.size())).trimmed();
    if (!subject.contains(commonName))
        return subject + QLatin1String(CommonName);
    return subject.replace(commonName, QString::fromLatin1(CommonName));
}

bool DeviceCertificate::makeRequest(const QString& subject, QString* error) const
{
    static const char what[] = "Unable to create csr: ";
    QString reason;
    if (!m_request.create({}, &reason))
        return failed(error, what, reason.toUtf8());
    const ZarkProcessResult made =
        openssl({ QStringLiteral("req"), QStringLiteral("-new"), QStringLiteral("-key"), m_keyFile,
            QStringLiteral("-out"), m_request.path(), QStringLiteral("-sha256"), QStringLiteral("-subj"), subject });
    return made.finishedOk() || failed(error, what, made.getData());
}

bool DeviceCertificate::sign(const QString& authorityFile, const QString& extensionFile, QString* error)
{
    // Readers of the log know this text for both steps.
    static const char what[] = "Unable to create device key: ";
    QString reason;
    if (!m_certificate.create({}, &reason))
        return failed(error, what, reason.toUtf8());
    const ZarkProcessResult made = openssl({ QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"),
        m_request.path(), QStringLiteral("-out"), m_certificate.path(), QStringLiteral("-days"), QStringLiteral("365"),
        QStringLiteral("-CA"), authorityFile, QStringLiteral("-CAcreateserial"), QStringLiteral("-extensions"),
        QStringLiteral("v3_ca"), QStringLiteral("-extfile"), extensionFile });
    if (!made.finishedOk())
        return failed(error, what, made.getData());
    m_certificateFile = m_certificate.path();
    return true;
}

QByteArray DeviceCertificate::extensions(const QSet<QString>& addresses)
{
    dbglog_scopedFunction(webserverLog());
    QStringList names;
    for (const QString& address : addresses) {
        // A zone is this machine's affair, and no part of an address in a certificate.
        const QHostAddress parsed(address.section(QLatin1Char('%'), 0, 0));
        if (parsed.isNull())
            dbglog_warn(webserverLog(), "Not an IP address, left out of the certificate: " << address);
        else
            names.append(parsed.toString());
    }
    names.removeDuplicates();
    std::sort(names.begin(), names.end());
    names.append(QStringLiteral("127.0.0.1"));
    return "[v3_ca]\nbasicConstraints = CA:FALSE\nkeyUsage = digitalSignature, keyEncipherment\n"
           "extendedKeyUsage = serverAuth\nsubjectAltName = IP:"
        + names.join(QStringLiteral(",IP:")).toLatin1() + '\n';
}
