#pragma once

#include <QElapsedTimer>
#include <QTimer>
#include <QVector>

#include <functional>

#include "Census.h"
#include "ServerCounters.h"

class CMNodes;
class CMValueNode;

/// What the web server does at one moment, all servers together.
struct ServerStatus {
    Census connections;
    ServerCounters counted;
    int queues = 0;
    int waitingPolls = 0;
    int pendingChanges = 0; ///< That no event queue has told yet.
    int heldAnswers = 0; ///< To failed authentications.
    qint64 failedAuthentications = 0;
    int fetches = 0; ///< Of the proxy, under way.
    qint64 finishedFetches = 0;
    qint64 certificateEnd = 0; ///< Milliseconds since the epoch; 0 without HTTPS.
    qint64 longestStall = 0; ///< Microseconds.
};

/// The web server's own figures as nodes below its status: numbers alone, nothing of a client.
///
/// Asked for at most once a second, and only for somebody: a read of values older than that asks at once, a timer runs
/// while any of the nodes is watched, and nothing at all happens otherwise.
class StatusNodes : public QObject {
    Q_OBJECT
public:
    /// The nodes belong to `nodes`, which outlives this object.
    StatusNodes(CMNodes* nodes, const QString& worker, const std::function<ServerStatus()>& take);
    ~StatusNodes() override;

private:
    using Reader = qint64 (*)(const ServerStatus&);
    struct Row {
        const char* path; ///< Below the status.
        const char* title;
        const char* unit;
        Reader read;
    };
    struct Entry {
        CMValueNode* node;
        Reader read;
    };

    static QVector<Row> rows();
    void add(CMNodes* nodes, const QString& worker, const Row& row);
    void onDemand();
    bool isWatched() const;
    void publish();

    std::function<ServerStatus()> m_take;
    QVector<Entry> m_entries;
    QTimer m_timer;
    QElapsedTimer m_age; ///< Of what the nodes hold; invalid before the first.
};
