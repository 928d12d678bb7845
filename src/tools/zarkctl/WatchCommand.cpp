#include <QDateTime>
#include <QHash>

#include "Commands.h"
#include "Nodes.h"
#include "Session.h"
#include "ValueText.h"

namespace {

const int PollSeconds = 25;
const int FirstPauseMilliseconds = 1000;
const int LongestPauseMilliseconds = 30000;
const char* const UnknownQueue = "Unknown queue id!";

const QString RolesKey = QStringLiteral("roles");
const QString ValueRole = QStringLiteral("value");
const QString TimeRole = QStringLiteral("timestamp");

/// Follows nodes of one device until enough events came, nobody reads them, or the device refuses.
class Watch {
public:
    explicit Watch(Session* session);
    void run();

private:
    void open();
    void printPresent();
    void poll();
    void recover(const Failure& failure);
    void print(const QVariantHash& event);
    QByteArrayList linesOf(const QVariantHash& event) const;
    bool isDone() const { return m_left == 0; }
    void pause(int milliseconds);

    Session& m_session;
    QStringList m_paths;
    QString m_queue;
    qint64 m_received = 0; ///< Answers with events of this queue, so that none is lost with a connection.
    qint64 m_left; ///< -1: no end.
    int m_pause = FirstPauseMilliseconds;
    QHash<QString, QVariant> m_last; ///< What was told of each path.
};

Watch::Watch(Session* session) : m_session(*session), m_left(session->invocation.number("count", -1))
{
    m_session.api->http().setGivingUp(&Output::isClosed);
    m_paths = Nodes(m_session.api, {}).expanded(m_session.arguments());
}

void Watch::run()
{
    open();
    while (!isDone()) {
        try {
            if (m_queue.isEmpty())
                open();
            poll();
            m_pause = FirstPauseMilliseconds;
        } catch (const Failure& failure) {
            recover(failure);
        }
    }
}

/// Subscribes, then reads: what changes in between is told twice and never missed.
void Watch::open()
{
    QVariantList subscriptions;
    const bool rows = m_session.invocation.has("rows");
    for (const QString& path : qAsConst(m_paths)) {
        subscriptions.append(QVariantHash{ { QStringLiteral("path"), path },
            { QStringLiteral("type"), rows ? QStringLiteral("rows") : QStringLiteral("item") } });
    }
    const QString queue = m_session.api->openQueue(subscriptions);
    m_received = 0;
    printPresent();
    m_queue = queue;
}

void Watch::printPresent()
{
    for (const QString& path : qAsConst(m_paths)) {
        const QVariantList values = m_session.api->getData(path, { ValueRole, TimeRole });
        const bool isKnown = m_last.contains(path) && m_last.value(path) == values.at(0);
        if (values.at(0).isNull() && !isKnown && !m_session.invocation.has("rows"))
            m_session.note(
                QStringLiteral("%1: holds no value; --rows follows a list, '%1/*' what is in a container").arg(path));
        if (values.at(0).isNull())
            m_last.insert(path, values.at(0));
        if (isKnown || values.at(0).isNull() || isDone())
            continue;
        print({ { QStringLiteral("path"), path },
            { RolesKey, QVariantHash{ { ValueRole, values.at(0) }, { TimeRole, values.at(1) } } } });
    }
}

void Watch::poll()
{
    const qint64 begun = QDateTime::currentMSecsSinceEpoch();
    const QVariantList events = m_session.api->poll(m_queue, PollSeconds, m_received);
    for (const QVariant& event : events) {
        if (!isDone())
            print(event.toHash());
    }
    if (!events.isEmpty())
        ++m_received;
    else if (QDateTime::currentMSecsSinceEpoch() - begun < FirstPauseMilliseconds)
        pause(FirstPauseMilliseconds); // Somebody else polls this queue, or the device does not wait.
}

void Watch::recover(const Failure& failure)
{
    const bool isLost = failure.name == QLatin1String(UnknownQueue);
    if (!isLost && failure.status != ExitUnreachable)
        throw failure;
    if (Output::isClosed())
        throw failure;
    if (isLost) {
        m_session.note(QStringLiteral("the device has forgotten the subscription; subscribing again"));
        m_queue.clear();
    } else {
        m_session.note(QStringLiteral("%1; trying again in %2 s").arg(failure.text).arg(m_pause / 1000));
    }
    pause(m_pause);
    m_pause = qMin(2 * m_pause, LongestPauseMilliseconds);
}

void Watch::pause(int milliseconds)
{
    if (!Output::pause(milliseconds))
        throw Failure{ ExitFailed, QString() };
}

void Watch::print(const QVariantHash& event)
{
    const QVariantHash roles = event.value(RolesKey).toHash();
    if (roles.contains(ValueRole))
        m_last.insert(event.value(QStringLiteral("path")).toString(), roles.value(ValueRole));
    if (m_left > 0)
        --m_left;
    QByteArray text;
    if (m_session.output->format() == Output::Table) {
        for (const QByteArray& line : linesOf(event))
            text += (m_session.isAlone() ? QByteArray() : m_session.report.device.toUtf8() + "  ") + line + '\n';
    } else {
        Record record;
        for (auto it = event.cbegin(); it != event.cend(); ++it)
            record.append({ it.key(), it.value() });
        text = recordJson(record, m_session.report.device) + '\n';
    }
    m_session.output->write(text);
}

QByteArrayList Watch::linesOf(const QVariantHash& event) const
{
    static const char* const changes[] = { "all rows changed", "row inserted at ", "row removed at ",
        "row changed at " };
    QVariantHash roles = event.value(RolesKey).toHash();
    const qint64 time = roles.take(TimeRole).toLongLong();
    const QDateTime when = time > 0 ? QDateTime::fromMSecsSinceEpoch(time) : QDateTime::currentDateTime();
    const QString start =
        when.toString(QStringLiteral("HH:mm:ss.zzz  ")) + event.value(QStringLiteral("path")).toString();
    QByteArrayList lines;
    for (auto it = roles.cbegin(); it != roles.cend(); ++it) {
        const QString role = it.key() == ValueRole ? QString() : it.key() + QLatin1Char('=');
        lines.append((start + QStringLiteral("  ") + role + ValueText::cell(it.value())).toUtf8());
    }
    for (const QVariant& row : event.value(QStringLiteral("rowsEvents")).toList()) {
        const int type = qBound(0, row.toHash().value(QStringLiteral("type")).toInt(), 3);
        const QByteArray index = type == 0 ? QByteArray() : row.toHash().value(QStringLiteral("index")).toByteArray();
        lines.append(start.toUtf8() + "  " + changes[type] + index);
    }
    return lines;
}

} // namespace

ExitStatus runWatch(Session& session)
{
    session.report.bare = true;
    try {
        Watch(&session).run();
    } catch (const Failure& failure) {
        throw Output::isClosed() ? Failure{ ExitFailed, QString() } : failure; // The reader has gone, as readers do.
    }
    return ExitOk;
}
