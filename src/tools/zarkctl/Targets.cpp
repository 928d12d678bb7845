#include "Targets.h"

#include <QFile>
#include <QFileInfo>

#include "CommandLine.h"
#include "Failure.h"
#include "Input.h"
#include "Password.h"
#include "Profile.h"

namespace {

QStringList urlsIn(const QString& fileName)
{
    QStringList urls;
    const QStringList lines = QString::fromUtf8(inputOf(fileName)).split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        const QString url = line.section(QLatin1Char('#'), 0, 0).trimmed();
        if (!url.isEmpty())
            urls.append(url);
    }
    if (urls.isEmpty())
        throw Failure{ ExitUsage, fileName + QStringLiteral(": names no device") };
    return urls;
}

/// Whole, because a profile keeps it for other directories.
QString authorityFile(const QString& fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly))
        throw Failure{ ExitUsage, fileName + QStringLiteral(": ") + file.errorString() };
    return QFileInfo(file).absoluteFilePath();
}

QList<Target> named(const Invocation& invocation)
{
    QStringList urls = invocation.values("url");
    for (const QString& file : invocation.values("urls"))
        urls += urlsIn(file);
    QList<Target> targets;
    for (const QString& profile : invocation.values("profile"))
        targets.append(readProfile(profile));
    const QString ofEnvironment = qEnvironmentVariable("ZARK_URL");
    if (urls.isEmpty() && targets.isEmpty() && !ofEnvironment.isEmpty())
        urls.append(ofEnvironment);
    if (urls.isEmpty() && targets.isEmpty() && hasProfile(DefaultProfile))
        targets.append(readProfile(DefaultProfile));
    if (urls.isEmpty() && targets.isEmpty())
        urls.append(QStringLiteral("http://localhost:8080"));
    for (const QString& url : qAsConst(urls)) {
        targets.append(Target());
        targets.last().url = urlFrom(url);
    }
    return targets;
}

} // namespace

QList<Target> targetsOf(const Invocation& invocation)
{
    QList<Target> targets = named(invocation);
    const bool given = invocation.has("user");
    if ((invocation.has("password-file") || invocation.has("empty-password")) && !given)
        throw Failure{ ExitUsage, QStringLiteral("a password needs --user") };
    QString password;
    if (given)
        password = passwordFor(invocation.value("user"), invocation);
    for (Target& target : targets) {
        if (given)
            target.user = invocation.value("user"), target.password = password;
        if (invocation.has("ca"))
            target.caFile = authorityFile(invocation.value("ca"));
        else if (target.caFile.isEmpty() && QFile::exists(trustedFile(target.url)))
            target.caFile = trustedFile(target.url);
        target.timeoutSeconds = int(invocation.number("timeout", 0));
    }
    return targets;
}
