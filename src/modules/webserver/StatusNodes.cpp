#include "StatusNodes.h"

#include <algorithm>

#include "CMNodes.h"
#include "CMValueNode.h"
#include "WebserverLog.h"

namespace {

constexpr int PeriodMs = 1000;

} // namespace

StatusNodes::StatusNodes(CMNodes* nodes, const QString& worker, const std::function<ServerStatus()>& take)
    : m_take(take)
{
    dbglog_scopedFunction(webserverLog());
    for (const Row& row : rows())
        add(nodes, worker, row);
    m_timer.setInterval(PeriodMs);
    connect(&m_timer, &QTimer::timeout, this, &StatusNodes::publish);
}

StatusNodes::~StatusNodes()
{
    for (const Entry& entry : qAsConst(m_entries))
        entry.node->setDemandHook({});
}

QVector<StatusNodes::Row> StatusNodes::rows()
{
    using S = const ServerStatus&;
    return {
        { "connections/opening", "Connections without a request yet", "",
            [](S s) -> qint64 {
                return s.connections.opening;
            } },
        { "connections/idle", "Idle connections", "",
            [](S s) -> qint64 {
                return s.connections.idle;
            } },
        { "connections/receiving", "Connections that send a body", "",
            [](S s) -> qint64 {
                return s.connections.receiving;
            } },
        { "connections/answering", "Connections that wait for an answer, or read it", "",
            [](S s) -> qint64 {
                return s.connections.answering;
            } },
        { "connections/accepted", "Connections accepted", "",
            [](S s) {
                return s.counted.accepted;
            } },
        { "connections/displaced", "Connections closed for newer ones", "",
            [](S s) {
                return s.counted.displaced;
            } },
        { "requests", "Requests", "",
            [](S s) {
                return s.counted.requests;
            } },
        { "answers/success", "Answers 2xx", "",
            [](S s) {
                return s.counted.answers[2];
            } },
        { "answers/redirection", "Answers 3xx", "",
            [](S s) {
                return s.counted.answers[3];
            } },
        { "answers/clientError", "Answers 4xx", "",
            [](S s) {
                return s.counted.answers[4];
            } },
        { "answers/serverError", "Answers 5xx", "",
            [](S s) {
                return s.counted.answers[5];
            } },
        { "answers/abandoned", "Answers that the client did not wait for", "",
            [](S s) {
                return s.counted.answers[0];
            } },
        { "bytes/received", "Bytes of requests' bodies", "B",
            [](S s) {
                return s.counted.receivedBytes;
            } },
        { "bytes/sent", "Bytes of answers' bodies", "B",
            [](S s) {
                return s.counted.sentBytes;
            } },
        { "refused/malformed", "Heads refused as malformed", "",
            [](S s) {
                return s.counted.malformedHeads;
            } },
        { "refused/fields", "Heads refused for their fields", "",
            [](S s) {
                return s.counted.longHeads;
            } },
        { "refused/body", "Bodies refused for their length", "",
            [](S s) {
                return s.counted.longBodies;
            } },
        { "refused/host", "Requests refused for their host", "",
            [](S s) {
                return s.counted.foreignHosts;
            } },
        { "events/queues", "Event queues", "",
            [](S s) -> qint64 {
                return s.queues;
            } },
        { "events/waiting", "Waiting polls", "",
            [](S s) -> qint64 {
                return s.waitingPolls;
            } },
        { "events/pending", "Changes that wait to be told", "",
            [](S s) -> qint64 {
                return s.pendingChanges;
            } },
        { "authentication/held", "Answers held back", "",
            [](S s) -> qint64 {
                return s.heldAnswers;
            } },
        { "authentication/failed", "Failed authentications", "",
            [](S s) {
                return s.failedAuthentications;
            } },
        { "proxy/underWay", "Proxy fetches under way", "",
            [](S s) -> qint64 {
                return s.fetches;
            } },
        { "proxy/finished", "Proxy fetches finished", "",
            [](S s) {
                return s.finishedFetches;
            } },
        { "certificate/end", "End of the certificate", "ms",
            [](S s) {
                return s.certificateEnd;
            } },
        { "loop/longestStall", "Longest turn of the event loop in the last minute", "µs",
            [](S s) {
                return s.longestStall;
            } },
    };
}

void StatusNodes::add(CMNodes* nodes, const QString& worker, const Row& row)
{
    const QStringList path = QStringLiteral("status/%1").arg(QLatin1String(row.path)).split(QLatin1Char('/'));
    CMValueNode* node = CMValueNode::create(nodes, CMPath::fromSegments(worker, path), ZarkValue::fromI64(0));
    if (!node)
        return; // Logged; the tree declares something else there.
    node->setTitle(row.title);
    node->setPermission(ZarkPermission::Protected);
    if (*row.unit)
        node->setEdit({ { QStringLiteral("unit"), QString::fromUtf8(row.unit) } });
    node->setDemandHook([this] { onDemand(); });
    m_entries.append({ node, row.read });
}

void StatusNodes::onDemand()
{
    if (!m_age.isValid() || m_age.hasExpired(PeriodMs))
        publish();
    if (!isWatched())
        m_timer.stop();
    else if (!m_timer.isActive())
        m_timer.start();
}

bool StatusNodes::isWatched() const
{
    return std::any_of(m_entries.begin(), m_entries.end(), [](const Entry& entry) { return entry.node->isWatched(); });
}

void StatusNodes::publish()
{
    // First of all: telling the new values makes listeners read, which demands again.
    m_age.start();
    if (m_timer.isActive())
        m_timer.start(); // A second from now, not sooner.
    const ServerStatus now = m_take();
    for (const Entry& entry : qAsConst(m_entries))
        entry.node->setMeasured(ZarkValue::fromI64(entry.read(now)));
}
