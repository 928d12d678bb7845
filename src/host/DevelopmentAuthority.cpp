#include "DevelopmentAuthority.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

#include "CMNodeTree.h"
#include "CMValueNode.h"
#include "CertificatePair.h"
#include "ZarkPaths.h"
#include "ZarkProcessHandler.h"
#include "dbglog.h"

namespace {

constexpr int ToolTimeoutMs = 5000;
constexpr QFile::Permissions OwnerOnly = QFile::ReadOwner | QFile::WriteOwner;

const QString Aside = QStringLiteral(".unusable-");

const DbgLogger& logger()
{
    static const DbgLogger hostLogger("zark.host");
    return hostLogger;
}

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

bool isThere(const QString& name)
{
    const QFileInfo info(name);
    return info.exists() || info.isSymLink();
}

bool failed(QString* error, const QString& file)
{
    *error = file + QStringLiteral(": ") + QString::fromLocal8Bit(std::strerror(errno));
    return false;
}

bool rename(const QString& from, const QString& to, QString* error)
{
    return std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0
        || failed(error, from);
}

/// A file or a directory.
bool sync(const QString& name, QString* error)
{
    const int fd = ::open(QFile::encodeName(name).constData(), O_RDONLY | O_CLOEXEC);
    const bool synced = fd >= 0 && ::fsync(fd) == 0;
    const bool result = synced || failed(error, name);
    if (fd >= 0)
        ::close(fd);
    return result;
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

QString DevelopmentAuthority::newCertificateFile() const
{
    return certificateFile() + QStringLiteral(".new");
}

QString DevelopmentAuthority::newKeyFile() const
{
    return keyFile() + QStringLiteral(".new");
}

bool DevelopmentAuthority::apply(CMNodeTree* tree, QString* error)
{
    removeUnfinished();
    CMValueNode* certificate = valueNode(tree, ZarkWebserverHttpsCertPath());
    CMValueNode* key = valueNode(tree, ZarkWebserverHttpsPrivateKeyPath());
    const CMValueNode* useDeviceCert = valueNode(tree, ZarkWebserverHttpsUseDeviceCertPath());
    const CMValueNode* port = valueNode(tree, ZarkWebserverHttpsPortPath());
    if (!certificate || !key || !useDeviceCert || !port)
        return true;
    const bool isOurs = m_wanted && certificate->value().string().toUtf8() == m_pair.certificate;
    const bool isEmpty = certificate->value().string().isEmpty() && key->value().string().isEmpty();
    m_wanted = (isOurs || isEmpty) && useDeviceCert->value().bool_() && port->value().i32() > 0;
    if (!m_wanted)
        return true;
    Pair pair;
    if (!provide(&pair, error))
        return false;
    const CMError refused = give(certificate, key, pair.certificate, pair.key);
    if (refused.isEmpty()) {
        m_pair = pair;
        return true;
    }
    *error = certificateFile() + QStringLiteral(": ") + refused.message().toString();
    give(certificate, key, m_pair.certificate, m_pair.key);
    return false;
}

bool DevelopmentAuthority::provide(Pair* pair, QString* error) const
{
    *pair = read(certificateFile(), keyFile());
    const QString fault = faultOf(*pair);
    if (fault.isEmpty())
        return true;
    if (!isThere(certificateFile()) && !isThere(keyFile()))
        return make(pair, error);
    *error = certificateFile() + QStringLiteral(": ") + fault;
    // Files that somebody is just replacing are no reason to give up an authority that is trusted.
    if (faultOf(m_pair).isEmpty() || !setAside(fault, error))
        return false;
    if (takeBack(pair))
        return true;
    if (!make(pair, error))
        return false;
    dbglog_warn(logger(),
        "Made another certificate authority, to be trusted anew: " << certificateFile() << ", SHA-256 "
                                                                   << fingerprintOf(pair->certificate));
    return true;
}

DevelopmentAuthority::Pair DevelopmentAuthority::read(const QString& certificateFile, const QString& keyFile)
{
    return { contentOf(certificateFile), contentOf(keyFile) };
}

QString DevelopmentAuthority::faultOf(const Pair& pair)
{
    if (pair.certificate.isEmpty())
        return QStringLiteral("The certificate is missing, empty or not readable");
    if (pair.key.isEmpty())
        return QStringLiteral("The private key is missing, empty or not readable");
    const QString fault = certificatePairFault(QString::fromUtf8(pair.certificate), QString::fromUtf8(pair.key));
    const std::time_t now = std::time(nullptr);
    if (!fault.isEmpty() || isCertificateValid(pair.certificate, now, now))
        return fault;
    return QStringLiteral("The certificate is not valid at the present time");
}

bool DevelopmentAuthority::setAside(const QString& fault, QString* error) const
{
    const QString first = Aside + QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMddThhmmssZ"));
    QString suffix = first;
    for (int i = 2; isThere(certificateFile() + suffix) || isThere(keyFile() + suffix); ++i)
        suffix = first + QLatin1Char('-') + QString::number(i);
    for (const QString& file : { certificateFile(), keyFile() }) {
        if (!isThere(file))
            continue;
        if (!rename(file, file + suffix, error))
            return false;
        dbglog_error(
            logger(), "The certificate authority cannot be used (" << fault << "): set aside as " << file + suffix);
    }
    return true;
}

// A device whose clock begins in the past at each start finds its authority not valid yet, and valid again when the
// clock is set: those who trust it are not to notice.
bool DevelopmentAuthority::takeBack(Pair* pair) const
{
    const QString name = QFileInfo(certificateFile()).fileName();
    const QStringList found = QDir(m_directory).entryList({ name + Aside + QLatin1Char('*') }, QDir::Files);
    for (const QString& aside : found) {
        const QString suffix = aside.mid(name.size());
        *pair = read(certificateFile() + suffix, keyFile() + suffix);
        QString error;
        if (!faultOf(*pair).isEmpty() || !rename(keyFile() + suffix, keyFile(), &error)
            || !rename(certificateFile() + suffix, certificateFile(), &error))
            continue;
        dbglog_info(logger(), "The certificate authority " << aside << " is valid again, and used again");
        return true;
    }
    return false;
}

bool DevelopmentAuthority::make(Pair* pair, QString* error) const
{
    QFile key(newKeyFile());
    // The tool writes into the file that it finds, and leaves the mode as it is.
    if (!key.open(QIODevice::WriteOnly | QIODevice::NewOnly) || !key.setPermissions(OwnerOnly)) {
        *error = QStringLiteral("%1: %2").arg(newKeyFile(), key.errorString());
        return false;
    }
    const ZarkProcessResult made = ZarkProcessHandler::startSync(QStringLiteral("openssl"),
        { QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"), QStringLiteral("ec"),
            QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:P-256"), QStringLiteral("-nodes"),
            QStringLiteral("-keyout"), newKeyFile(), QStringLiteral("-out"), newCertificateFile(),
            QStringLiteral("-days"), QStringLiteral("3650"), QStringLiteral("-subj"),
            QStringLiteral("/C=AT/ST=Vienna/O=Orvanta/CN=Development authority of ") + QSysInfo::machineHostName(),
            QStringLiteral("-addext"), QStringLiteral("keyUsage=critical,keyCertSign,cRLSign") },
        ToolTimeoutMs);
    *pair = read(newCertificateFile(), newKeyFile());
    const QString fault = made.finishedOk() ? faultOf(*pair) : QString::fromUtf8(made.getData());
    *error = QStringLiteral("%1: not made: %2").arg(certificateFile(), fault);
    if (made.finishedOk() && fault.isEmpty() && install(error))
        return true;
    removeUnfinished();
    return false;
}

// Whatever a power cut leaves of this is either whole or found to be unusable at the next start.
bool DevelopmentAuthority::install(QString* error) const
{
    return sync(newKeyFile(), error) && sync(newCertificateFile(), error) && rename(newKeyFile(), keyFile(), error)
        && rename(newCertificateFile(), certificateFile(), error) && sync(m_directory, error);
}

void DevelopmentAuthority::removeUnfinished() const
{
    QFile::remove(newKeyFile());
    QFile::remove(newCertificateFile());
    // Of earlier versions, killed at work: private keys are in them.
    const QStringList workDirectories =
        QDir(m_directory)
            .entryList({ QStringLiteral("authority-??????") }, QDir::Dirs | QDir::NoSymLinks | QDir::NoDotAndDotDot);
    for (const QString& name : workDirectories)
        QDir(QDir(m_directory).filePath(name)).removeRecursively();
}

QString DevelopmentAuthority::fingerprintOf(const QByteArray& certificate)
{
    const QByteArray begin = QByteArrayLiteral("-----BEGIN CERTIFICATE-----");
    const int from = certificate.indexOf(begin) + begin.size();
    const QByteArray der = QByteArray::fromBase64(certificate.mid(from, certificate.indexOf("-----END") - from));
    return QString::fromLatin1(QCryptographicHash::hash(der, QCryptographicHash::Sha256).toHex(':').toUpper());
}
