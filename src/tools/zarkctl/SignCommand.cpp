#include "Commands.h"
#include "Session.h"
#include "SignatureCheck.h"
#include "ValueText.h"

namespace {

QByteArray quoted(const QByteArray& text)
{
    return '\'' + QByteArray(text).replace('\'', "'\\''") + '\'';
}

QByteArray wholeUri(const Session& session, const QString& argument)
{
    return argument.startsWith(QLatin1Char('/')) ? session.api->url(argument) : argument.toUtf8();
}

} // namespace

ExitStatus runSign(Session& session)
{
    const Target& target = session.target();
    if (target.user.isEmpty())
        throw Failure{ ExitUsage, QStringLiteral("sign needs --user") };
    const QByteArray given = wholeUri(session, session.arguments().first());
    const QByteArray uri = SignatureCheck::serversForm(given);
    const bool isPost = session.arguments().size() > 1;
    const QByteArray body = isPost ? ValueText::given(session.arguments().at(1), false) : QByteArray();
    if (session.invocation.has("explain")) {
        const SignatureCheck check({ target.user, target.password, given, isPost, body });
        bool holds = false;
        session.report.bare = true;
        session.report.lines = check.explain(session.invocation.value("explain").toUtf8(), &holds);
        return holds ? ExitOk : ExitFailed;
    }
    const QByteArray header = session.api->signer()->authorization(isPost ? uri + '.' + body : uri);
    QByteArray line = "curl -H " + quoted("Authorization: " + header);
    if (!target.caFile.isEmpty())
        line += " --cacert " + quoted(target.caFile.toUtf8());
    if (isPost)
        line += " -H 'Content-Type: application/json' --data-binary " + quoted(body);
    session.report.bare = true;
    session.report.lines.append(line + ' ' + quoted(uri));
    return ExitOk;
}
