#include "DevelopmentAuthority.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "CMNodeTree.h"
#include "CMValueNode.h"
#include "ZarkPaths.h"
#include "ZarkProcessHandler.h"

namespace {

constexpr int ToolTimeoutMs = 5000;

CMValueNode* valueNode(CMNodeTree* tree, const CMPath& path)
{
    return dynamic_cast<CMValueNode*>(tree->node(path));
}

// The nodes refuse a key that does not belong to the certificate; an empty one belongs to any.
CMError give(CMValueNode* certificate, CMValueNode* key, const QByteArray& certificatePem, const QByteArray& keyPem)
{
    CMError refused = key->override_(ZarkValue::fromString(QString()));
    if (refused.isEmpty())
        refused = certificate->override_(ZarkValue::fromString(QString::fromUtf8(certificatePem)));
    if (refused.isEmpty())
        refused = key->override_(ZarkValue::fromString(QString::fromUtf8(keyPem)));
    return refused;
}

QByteArray contentOf(const QString& file)
{
    QFile in(file);
    return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
}

} // namespace

DevelopmentAuthority::DevelopmentAuthority(const QString& stateDirectory) : m_directory(stateDirectory) { }

QString DevelopmentAuthority::certificateFile() const
{
    return QDir(m_directory).absoluteFilePath(QStringLiteral("authority.pem"));
}

QString DevelopmentAuthority::keyFile() const
{
    return QDir(m_directory).absoluteFilePath(QStringLiteral("authority-key.pem"));
}

bool DevelopmentAuthority::apply(CMNodeTree* tree, QString* error)
{
    CMValueNode* certificate = valueNode(tree, ZarkWebserverHttpsCertPath());
    CMValueNode* key = valueNode(tree, ZarkWebserverHttpsPrivateKeyPath());
    const CMValueNode* useDeviceCert = valueNode(tree, ZarkWebserverHttpsUseDeviceCertPath());
    const CMValueNode* port = valueNode(tree, ZarkWebserverHttpsPortPath());
    if (!certificate || !key || !useDeviceCert || !port)
        return true;
    const bool isOurs = m_used && certificate->value().string().toUtf8() == m_certificatePem;
    const bool isEmpty = certificate->value().string().isEmpty() && key->value().string().isEmpty();
    m_used = (isOurs || isEmpty) && useDeviceCert->value().bool_() && port->value().i32() > 0;
    if (!m_used)
        return true;
    const QByteArray usedCertificate = m_certificatePem;
    const QByteArray usedKey = m_keyPem;
    const bool loaded = load(error);
    const CMError refused = loaded ? give(certificate, key, m_certificatePem, m_keyPem) : CMError();
    if (loaded && refused.isEmpty())
        return true;
    if (loaded)
        *error = certificateFile() + QStringLiteral(": ") + refused.message().toString();
    // What was in use goes on, until the files are put right.
    m_certificatePem = usedCertificate;
    m_keyPem = usedKey;
    give(certificate, key, m_certificatePem, m_keyPem);
    return false;
}

bool DevelopmentAuthority::load(QString* error)
{
    // Half a pair is what a crash or a careful owner left: without the key nothing can be signed.
    const bool complete = QFile::exists(certificateFile()) && QFile::exists(keyFile());
    if (!complete && !make(error))
        return false;
    m_certificatePem = contentOf(certificateFile());
    m_keyPem = contentOf(keyFile());
    *error = QStringLiteral("%1: no certificate authority can be read").arg(certificateFile());
    return !m_certificatePem.isEmpty() && !m_keyPem.isEmpty();
}

bool DevelopmentAuthority::make(QString* error) const
{
    const QTemporaryDir work(QDir(m_directory).absoluteFilePath(QStringLiteral("authority-XXXXXX"))); // Mode 0700.
    const QString newKey = work.filePath(QStringLiteral("key.pem"));
    const QString newCertificate = work.filePath(QStringLiteral("certificate.pem"));
    const ZarkProcessResult made = ZarkProcessHandler::startSync(QStringLiteral("openssl"),
        { QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"), QStringLiteral("ec"),
            QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:P-256"), QStringLiteral("-nodes"),
            QStringLiteral("-keyout"), newKey, QStringLiteral("-out"), newCertificate, QStringLiteral("-days"),
            QStringLiteral("3650"), QStringLiteral("-subj"),
            QStringLiteral("/C=AT/ST=Vienna/O=Orvanta/CN=Development authority of ") + QSysInfo::machineHostName(),
            QStringLiteral("-addext"), QStringLiteral("keyUsage=critical,keyCertSign,cRLSign") },
        ToolTimeoutMs);
    *error = QStringLiteral("%1: not made: %2").arg(certificateFile(), QString::fromUtf8(made.getData()));
    if (!made.finishedOk() || !QFile::setPermissions(newKey, QFile::ReadOwner | QFile::WriteOwner))
        return false;
    QFile::remove(keyFile());
    QFile::remove(certificateFile());
    return QFile::rename(newKey, keyFile()) && QFile::rename(newCertificate, certificateFile());
}

QString DevelopmentAuthority::fingerprint() const
{
    const QByteArray begin = QByteArrayLiteral("-----BEGIN CERTIFICATE-----");
    const int from = m_certificatePem.indexOf(begin) + begin.size();
    const QByteArray der =
        QByteArray::fromBase64(m_certificatePem.mid(from, m_certificatePem.indexOf("-----END") - from));
    return QString::fromLatin1(QCryptographicHash::hash(der, QCryptographicHash::Sha256).toHex(':').toUpper());
}
