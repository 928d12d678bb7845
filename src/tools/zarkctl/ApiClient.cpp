#include "ApiClient.h"

#include <QUrl>

#include "ApiReply.h"
#include "Failure.h"
#include "ZarkJson.h"

namespace {

const qint64 PageSize = 1000;
const int MaximumRestarts = 10; ///< Of a list that changes faster than it can be read.

HttpSession::Settings settingsOf(const Target& target)
{
    HttpSession::Settings settings;
    settings.caFile = target.caFile.toLocal8Bit();
    if (target.timeoutSeconds > 0)
        settings.connectSeconds = settings.silenceSeconds = target.timeoutSeconds;
    return settings;
}

/// Escapes all that a server could rewrite before it compares the signature; what is left stays readable.
QByteArray encodedQuery(const ApiClient::Query& query)
{
    QByteArrayList items;
    for (const auto& item : query)
        items.append(item.first.toLatin1() + '=' + QUrl::toPercentEncoding(item.second, "/:,@"));
    return items.join('&');
}

/// What the device says of a node, with the node's path in front.
[[noreturn]] void failAt(const QString& path, Failure failure)
{
    if (failure.status != ExitUnreachable)
        failure.text = path + QStringLiteral(": ") + failure.text;
    throw failure;
}

QString endpoint(const char* name)
{
    return QStringLiteral("/api/") + QLatin1String(name);
}

} // namespace

ApiClient::ApiClient(const Target& target) : m_target(target), m_http(settingsOf(target))
{
    if (!target.user.isEmpty())
        m_signer.emplace(target.user, target.password);
}

QByteArray ApiClient::url(const QString& path, const Query& query) const
{
    QByteArray base = m_target.url.toEncoded();
    while (base.endsWith('/'))
        base.chop(1);
    const QByteArray text = base + path.toUtf8();
    return query.isEmpty() ? text : text + '?' + encodedQuery(query);
}

QByteArray ApiClient::authorization(const QByteArray& data) const
{
    return m_signer ? m_signer->authorization(data) : QByteArray();
}

QVariant ApiClient::get(const QString& path, const Query& query)
{
    const QByteArray target = url(path, query);
    const HttpReply reply = m_http.get(target, authorization(target));
    try {
        return readApiReply(reply, target);
    } catch (const Failure& failure) {
        failAt(query.first().second, failure);
    }
}

QVariant ApiClient::post(const QString& path, const QVariantHash& body, int waitSeconds)
{
    const QByteArray target = url(path);
    const QByteArray json = ZarkJson::serialize(body);
    return readApiReply(m_http.post(target, json, authorization(target + '.' + json), waitSeconds), target);
}

/// The answer to a setData: a typed value, or null from a command that returns nothing.
QVariant ApiClient::writtenValue(const QVariant& answer) const
{
    const QVariantHash value = answer.toHash();
    if (!answer.isNull() && !(value.contains(QStringLiteral("type")) && value.contains(QStringLiteral("value"))))
        failForeign(url(endpoint("setData")), QStringLiteral("no value"));
    return answer;
}

QVariant ApiClient::postEncrypted(const QVariantHash& body)
{
    const QByteArray target = url(endpoint("setData"));
    QVariantHash sent = body;
    QVariant& value = sent[QStringLiteral("value")];
    value = QString::fromLatin1(m_signer->encrypt(ZarkJson::serialize(value)));
    const QByteArray json = ZarkJson::serialize(sent);
    return writtenValue(
        readApiReply(m_http.post(target, json, m_signer->encryptedAuthorization(target + '.' + json)), target));
}

QVariantList ApiClient::getData(const QString& path, const QStringList& roles)
{
    const Query query{ { QStringLiteral("path"), path }, { QStringLiteral("roles"), roles.join(QLatin1Char(',')) } };
    const QVariant answer = get(endpoint("getData"), query);
    const bool every = roles.contains(QStringLiteral("@all"));
    if (answer.userType() != QMetaType::QVariantList || (!every && answer.toList().size() != roles.size()))
        failForeign(url(endpoint("getData")), QStringLiteral("not the roles that were asked for"));
    return answer.toList();
}

QVariantHash ApiClient::getRows(const QString& path, const QStringList& roles, qint64 from, qint64 to, qint64 version)
{
    const Query query{ { QStringLiteral("path"), path }, { QStringLiteral("roles"), roles.join(QLatin1Char(',')) },
        { QStringLiteral("from"), QString::number(from) }, { QStringLiteral("to"), QString::number(to) },
        { QStringLiteral("version"), QString::number(version) } };
    const QVariantHash answer = get(endpoint("getRows"), query).toHash();
    for (const char* key : { "rows", "rowsCount", "rowsVersion" }) {
        if (!answer.contains(QLatin1String(key)))
            failForeign(url(endpoint("getRows")), QStringLiteral("no rows"));
    }
    return answer;
}

QVariantList ApiClient::allRows(const QString& path, const QStringList& roles, qint64 from, qint64 to)
{
    QVariantList rows;
    for (int restarts = 0; !readRows(&rows, path, roles, from, to); ++restarts) {
        if (restarts == MaximumRestarts)
            throw Failure{ ExitFailed, path + QStringLiteral(": the list changes faster than it can be read") };
    }
    return rows;
}

/// False when the list changed meanwhile.
bool ApiClient::readRows(QVariantList* rows, const QString& path, const QStringList& roles, qint64 from, qint64 to)
{
    rows->clear();
    qint64 version = 0;
    qint64 last = to;
    qint64 got = 0; // A device may give fewer than were asked for.
    for (qint64 next = from; next == from || (got > 0 && next <= last); next += got) {
        const qint64 pageEnd = next + PageSize - 1;
        QVariantHash page;
        try {
            page = getRows(path, roles, next, last < 0 ? pageEnd : qMin(last, pageEnd), version);
        } catch (const Failure& failure) {
            if (failure.name == QLatin1String("outdatedVersion"))
                return false;
            throw;
        }
        const QVariantList pageRows = page.value(QStringLiteral("rows")).toList();
        got = pageRows.size();
        *rows += pageRows;
        version = page.value(QStringLiteral("rowsVersion")).toLongLong();
        const qint64 end = page.value(QStringLiteral("rowsCount")).toLongLong() - 1;
        last = to < 0 ? end : qMin(to, end);
    }
    return true;
}

QVariant ApiClient::setData(const QString& path, const QString& role, const QVariant& value)
{
    const QVariantHash body{ { QStringLiteral("path"), path }, { QStringLiteral("role"), role },
        { QStringLiteral("value"), value } };
    const bool encrypt = m_signer && m_target.url.scheme() == QLatin1String("http");
    try {
        return encrypt ? postEncrypted(body) : writtenValue(post(endpoint("setData"), body));
    } catch (const Failure& failure) {
        failAt(path, failure);
    }
}

void ApiClient::changePassword(const QString& oldPassword, const QString& newPassword)
{
    const QVariantHash value{ { QStringLiteral("name"), m_target.user }, { QStringLiteral("oldPassword"), oldPassword },
        { QStringLiteral("newPassword"), newPassword } };
    postEncrypted({ { QStringLiteral("path"), QStringLiteral("settings:webserver/changePassword") },
        { QStringLiteral("role"), QStringLiteral("activate") }, { QStringLiteral("value"), value } });
}

QString ApiClient::openQueue(const QVariantList& subscriptions)
{
    const QVariant answer = post(endpoint("event/modifyQueue"), { { QStringLiteral("subscribe"), subscriptions } });
    if (answer.userType() != QMetaType::QString)
        failForeign(url(endpoint("event/modifyQueue")), QStringLiteral("no queue"));
    return answer.toString();
}

QVariantList ApiClient::poll(const QString& queue, int seconds, qint64 received)
{
    const QVariant answer = post(endpoint("event/pollQueue"),
        { { QStringLiteral("queueId"), queue }, { QStringLiteral("timeout"), seconds },
            { QStringLiteral("received"), received } },
        seconds);
    if (answer.userType() != QMetaType::QVariantList)
        failForeign(url(endpoint("event/pollQueue")), QStringLiteral("no events"));
    return answer.toList();
}

QVariantHash ApiClient::upload(const UploadFile& file, const HttpSession::Progress& progress)
{
    const QByteArray target = url(QStringLiteral("/firmware/update"));
    return readApiReply(m_http.upload(target, file, authorization(target), progress), target).toHash();
}

void ApiClient::stream(const QString& path, const HttpSession::Sink& sink)
{
    // A stream may hold anything: that it is a device's is asked before its first byte.
    if (getData(path, { QStringLiteral("type") }).first() != QStringLiteral("stream"))
        throw Failure{ ExitNotFound, path + QStringLiteral(": notFound: there is no such stream") };
    const QByteArray target = url(endpoint("stream/") + QString::fromLatin1(QUrl::toPercentEncoding(path, "/:")));
    bool ended = false;
    const auto until = [&sink, &ended](const char* data, size_t size) {
        ended = !sink(data, size);
        return !ended;
    };
    try {
        const HttpReply reply = m_http.stream(target, authorization(target), until);
        if (reply.status != 200)
            readApiReply(reply, target);
    } catch (const Failure&) {
        if (!ended)
            throw;
    }
}
