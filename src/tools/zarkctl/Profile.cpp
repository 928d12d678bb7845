#include "Profile.h"

#include <QDir>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>

#include <sys/stat.h>

#include "Failure.h"
#include "ZarkJson.h"

namespace {

QString fileOf(const QString& name)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9][A-Za-z0-9._-]{0,63}$"));
    if (!plain.match(name).hasMatch())
        throw Failure{ ExitUsage, QStringLiteral("a profile's name has letters, digits and ._- alone") };
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/zarkctl/") + name
        + QStringLiteral(".json");
}

} // namespace

QString trustedFile(const QUrl& url)
{
    const QString host = QString(url.host()).replace(QLatin1Char(':'), QLatin1Char('_'));
    return QFileInfo(fileOf(DefaultProfile)).path() + QStringLiteral("/%1_%2.pem").arg(host).arg(url.port(443));
}

QString profileDirectory()
{
    const QString directory = QFileInfo(fileOf(DefaultProfile)).path();
    QDir().mkpath(directory);
    ::chmod(QFile::encodeName(directory).constData(), 0700);
    return directory;
}

bool hasProfile(const QString& name)
{
    return QFile::exists(fileOf(name));
}

Target readProfile(const QString& name)
{
    QFile file(fileOf(name));
    if (!file.open(QIODevice::ReadOnly))
        throw Failure{ ExitUsage, QStringLiteral("no profile %1: %2").arg(name, file.errorString()) };
    struct stat status { };
    if (::fstat(file.handle(), &status) != 0 || (status.st_mode & 077) != 0)
        throw Failure{ ExitUsage, file.fileName() + QStringLiteral(": others can read it; chmod 600 it") };
    const QVariantHash fields = ZarkJson::parse(file.readAll(), nullptr).toHash();
    if (!fields.contains(QStringLiteral("url")))
        throw Failure{ ExitUsage, file.fileName() + QStringLiteral(": not a profile") };
    Target target;
    target.url = urlFrom(fields.value(QStringLiteral("url")).toString());
    target.user = fields.value(QStringLiteral("user")).toString();
    target.password = fields.value(QStringLiteral("password")).toString();
    target.caFile = fields.value(QStringLiteral("ca")).toString();
    target.profile = name;
    return target;
}

void writeProfile(const QString& name, const Target& target)
{
    profileDirectory();
    const QVariantHash fields{ { QStringLiteral("url"), target.url.toString() },
        { QStringLiteral("user"), target.user }, { QStringLiteral("password"), target.password },
        { QStringLiteral("ca"), target.caFile } };
    QSaveFile file(fileOf(name));
    const QByteArray json = ZarkJson::serialize(fields) + '\n';
    // Before the first byte: the file never is another's to read.
    if (!file.open(QIODevice::WriteOnly) || !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner)
        || file.write(json) != json.size() || !file.commit())
        throw Failure{ ExitFailed, fileOf(name) + QStringLiteral(": ") + file.errorString() };
}

bool removeProfile(const QString& name)
{
    return QFile::remove(fileOf(name));
}
