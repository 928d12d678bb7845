#include "ApiReply.h"

#include <QUrl>

#include "Failure.h"
#include "ZarkJson.h"

namespace {

const int LongestText = 300;

ExitStatus statusOf(int http, const QString& name)
{
    static const QStringList refusals{ QStringLiteral("invalidType"), QStringLiteral("outOfRange"),
        QStringLiteral("notAnOption"), QStringLiteral("notModifiable"), QStringLiteral("notSupported") };
    if (http == 404 || name == QLatin1String("notFound"))
        return ExitNotFound;
    if (http == 401 || http == 403 || http == 409 || http == 413 || http == 429 || refusals.contains(name))
        return ExitRefused;
    return ExitFailed;
}

/// What a user can do about it, where that is known.
QString advice(int http, bool hasMessage)
{
    if (http == 401)
        return QStringLiteral(
            "; the request must be signed, by the right user with the right password: --user NAME, or "
            "`zarkctl login` (`zarkctl sign --explain` looks into a signature)");
    if (http == 403 && !hasMessage)
        return QStringLiteral("; the device is not to be addressed by this host name, only by an IP address, a name "
                              "without a dot or one that ends in .local");
    return {};
}

QString oneLine(const QByteArray& body)
{
    QString text = QString::fromUtf8(body).simplified();
    for (QChar& c : text) {
        if (c.category() == QChar::Other_Control)
            c = QLatin1Char('?');
    }
    return text.left(LongestText);
}

[[noreturn]] void failWithError(const HttpReply& reply, const QVariantHash& error)
{
    const QString name = error.value(QStringLiteral("name")).toString();
    const QString message = oneLine(error.value(QStringLiteral("message")).toString().toUtf8());
    throw Failure{ statusOf(reply.status, name),
        QStringLiteral("%1: %2 (HTTP %3)%4").arg(name, message).arg(reply.status).arg(advice(reply.status, true)),
        name };
}

} // namespace

void failForeign(const QByteArray& url, const QString& what)
{
    const QString place = QUrl::fromEncoded(url).toString(QUrl::RemoveUserInfo | QUrl::RemoveQuery);
    throw Failure{ ExitUnreachable,
        QStringLiteral("%1: this is no answer of a device (%2); another server, or a network's sign-in page?")
            .arg(place, what) };
}

QVariant readApiReply(const HttpReply& reply, const QByteArray& url)
{
    const bool isJson = reply.contentType == "application/json";
    ZarkError parseError;
    const QVariant json = isJson ? ZarkJson::parse(reply.body, &parseError) : QVariant();
    if (reply.status == 200) {
        if (!isJson || !parseError.isEmpty())
            failForeign(
                url, QStringLiteral("HTTP 200, %1").arg(isJson ? "malformed JSON" : oneLine(reply.contentType)));
        return json;
    }
    const QVariantHash error = json.toHash().value(QStringLiteral("error")).toHash();
    if (!error.isEmpty())
        failWithError(reply, error);
    // The event endpoints and what stands below the API answer in a line of plain text, or without a body.
    const bool ofDevice = reply.status >= 400 && (reply.body.isEmpty() || reply.contentType == "text/plain");
    if (!ofDevice || reply.status == 404)
        failForeign(url, QStringLiteral("HTTP %1, %2").arg(reply.status).arg(oneLine(reply.contentType)));
    const QString text = reply.body.isEmpty() ? QStringLiteral("refused") : oneLine(reply.body);
    throw Failure{ statusOf(reply.status, {}),
        QStringLiteral("%1 (HTTP %2)%3").arg(text).arg(reply.status).arg(advice(reply.status, !reply.body.isEmpty())),
        text };
}
