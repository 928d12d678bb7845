#include "Commands.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "JsonText.h"

namespace {

const qint64 PageSize = 1000;
const int MaximumRestarts = 10; ///< A list that changes faster than it can be read.
const int PollSeconds = 25;

QByteArray toJson(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

/// A string as JSON text, quotes and all.
QByteArray quoted(const QString& text)
{
    const QByteArray array = QJsonDocument(QJsonArray{ text }).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

/// `value` itself where it is JSON, else a JSON string of it. Numbers keep their digits.
QByteArray jsonOrText(const QString& value)
{
    const QByteArray text = value.toUtf8();
    const QJsonArray parsed = QJsonDocument::fromJson('[' + text + ']').array();
    return parsed.size() == 1 ? text : quoted(value);
}

bool isOutdated(const ApiReply& reply)
{
    return reply.errorName() == QLatin1String("outdatedVersion");
}

} // namespace

Commands::Commands(ApiClient* client, const Print& print, const Complain& complain)
    : m_client(client), m_print(print), m_complain(complain)
{
}

ExitStatus Commands::fail(const ApiReply& reply)
{
    m_complain(reply.errorText());
    return reply.status == 0 ? ExitUnreachable : ExitServerError;
}

ExitStatus Commands::printBody(const ApiReply& reply)
{
    if (!reply.isOk())
        return fail(reply);
    m_print(reply.body.trimmed());
    return ExitOk;
}

ExitStatus Commands::get(const QString& path, const QStringList& roles, bool structure)
{
    ApiClient::Query query{ { "path", path }, { "roles", roles.join(QLatin1Char(',')) } };
    if (structure)
        query.append(qMakePair(QStringLiteral("type"), QStringLiteral("structure")));
    return printBody(m_client->get("/api/getData", query));
}

ExitStatus Commands::rows(const QString& path, const QStringList& roles, qint64 from, qint64 to)
{
    QList<QByteArray> rows;
    ApiReply reply;
    for (int attempt = 0; attempt == 0 || (isOutdated(reply) && attempt <= MaximumRestarts); ++attempt)
        reply = readAllRows(path, roles.join(QLatin1Char(',')), from, to, &rows);
    if (!reply.isOk())
        return fail(reply);
    for (const QByteArray& row : rows)
        m_print(row);
    return ExitOk;
}

/// The last reply: an error, or the page that completed `rows`.
ApiReply Commands::readAllRows(
    const QString& path, const QString& roles, qint64 from, qint64 to, QList<QByteArray>* rows)
{
    rows->clear();
    ApiReply reply;
    QString version = "0";
    qint64 last = to;
    qint64 got = 0; // A device may give fewer than were asked for.
    for (qint64 next = from; next == from || (got > 0 && next <= last); next += got) {
        const qint64 pageEnd = next + PageSize - 1;
        reply = m_client->get("/api/getRows",
            { { "path", path }, { "roles", roles }, { "from", QString::number(next) },
                { "to", QString::number(last < 0 ? pageEnd : qMin(last, pageEnd)) }, { "version", version } });
        if (!reply.isOk())
            break;
        const QList<QByteArray> page = JsonText::elements(JsonText::member(reply.body, "rows"));
        got = page.size();
        rows->append(page);
        version = QString::fromLatin1(JsonText::member(reply.body, "rowsVersion"));
        const qint64 end = JsonText::member(reply.body, "rowsCount").toLongLong() - 1;
        last = to < 0 ? end : qMin(to, end);
    }
    return reply;
}

ExitStatus Commands::set(const QString& path, const QString& role, const QString& value)
{
    const QByteArray body =
        "{\"path\":" + quoted(path) + ",\"role\":" + quoted(role) + ",\"value\":" + jsonOrText(value) + '}';
    return printBody(m_client->post("/api/setData", body));
}

ApiReply Commands::openQueue(const QByteArray& subscriptions)
{
    return m_client->post("/api/event/modifyQueue", "{\"subscribe\":" + subscriptions + '}');
}

ExitStatus Commands::watch(const QStringList& paths, bool rowEvents, qint64 count)
{
    QJsonArray subscriptions;
    for (const QString& path : paths)
        subscriptions.append(QJsonObject{ { "path", path }, { "type", rowEvents ? "rows" : "item" } });
    const QByteArray subscribe = QJsonDocument(subscriptions).toJson(QJsonDocument::Compact);
    const ApiReply queue = openQueue(subscribe);
    if (!queue.isOk())
        return fail(queue);
    const QByteArray poll =
        "{\"queueId\":" + queue.body.trimmed() + ",\"timeout\":" + QByteArray::number(PollSeconds) + '}';
    while (count != 0) {
        const ApiReply reply = m_client->post("/api/event/pollQueue", poll);
        if (!reply.isOk())
            return fail(reply);
        for (const QByteArray& event : JsonText::elements(reply.body)) {
            m_print(event);
            if (count > 0 && --count == 0)
                break;
        }
    }
    return ExitOk;
}

ExitStatus Commands::changePassword(const QString& user, const QString& oldPassword, const QString& newPassword)
{
    const QJsonObject value{ { "name", user }, { "oldPassword", oldPassword }, { "newPassword", newPassword } };
    const ApiReply reply = m_client->postEncryptedValue("settings:webserver/changePassword", toJson(value));
    return reply.isOk() ? ExitOk : fail(reply);
}
