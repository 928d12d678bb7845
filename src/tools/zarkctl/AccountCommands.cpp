#include "Commands.h"
#include "Password.h"
#include "Profile.h"
#include "Session.h"

namespace {

const QString ProfileField = QStringLiteral("profile");
const QString UserField = QStringLiteral("user");

bool isOverheard(const QUrl& url)
{
    const QString host = url.host();
    const bool stays =
        host == QLatin1String("localhost") || host == QLatin1String("::1") || host.startsWith(QLatin1String("127."));
    return url.scheme() == QLatin1String("http") && !stays;
}

/// Signs a request that everybody may make, so that only the signature can be refused.
void proveSignature(ApiClient* api)
{
    try {
        api->getRows(QStringLiteral(":"), { QStringLiteral("path") }, 0, 0, 0);
    } catch (const Failure& failure) {
        if (failure.name == QLatin1String("accessDenied"))
            throw Failure{ ExitRefused, QStringLiteral("the device does not know this user with this password") };
        throw;
    }
}

} // namespace

ExitStatus runLogin(Session& session)
{
    const QString name = session.arguments().value(0, QLatin1String(DefaultProfile));
    if (session.target().user.isEmpty())
        throw Failure{ ExitUsage, QStringLiteral("login needs --user") };
    proveSignature(session.api);
    writeProfile(name, session.target());
    session.report.records.append({ { ProfileField, name }, { QStringLiteral("url"), session.target().url.toString() },
        { UserField, session.target().user } });
    session.report.lines.append(QStringLiteral("signed in to %1 as %2; kept as the profile %3")
                                    .arg(session.target().name(), session.target().user, name)
                                    .toUtf8());
    return ExitOk;
}

ExitStatus runLogout(Session& session)
{
    const QString name = session.arguments().value(0, QLatin1String(DefaultProfile));
    if (!removeProfile(name))
        throw Failure{ ExitUsage, QStringLiteral("no profile ") + name };
    session.report.records.append({ { ProfileField, name } });
    session.report.lines.append("forgotten: the profile " + name.toUtf8());
    return ExitOk;
}

ExitStatus runPasswd(Session& session)
{
    Target target = session.target();
    if (target.user.isEmpty())
        throw Failure{ ExitUsage, QStringLiteral("passwd needs --user") };
    if (isOverheard(target.url) && target.password.isEmpty())
        session.note(QStringLiteral("warning: over plain HTTP everybody who listens can read the new password, because "
                                    "the old one is empty; use https://"));
    else if (isOverheard(target.url))
        session.note(QStringLiteral("warning: over plain HTTP whoever listens, and guesses the old password, can read "
                                    "the new one; use https://"));
    const QString password = newPassword(session.invocation);
    session.api->changePassword(target.password, password);
    target.password = password;
    if (!target.profile.isEmpty())
        writeProfile(target.profile, target);
    session.report.records.append({ { UserField, target.user } });
    session.report.lines.append("the password of " + target.user.toUtf8() + " is changed");
    return ExitOk;
}
