#pragma once

#include <QElapsedTimer>
#include <QTimer>
#include <QVector>

#include <functional>

#include "SystemSample.h"
#include "ZarkValue.h"

class CMNodes;
class CMValueNode;

/// Load, memory, uptime, name and time of this machine as nodes under "system:".
///
/// Sampled at most once a second, and only for somebody: a read of values older than that samples at once, a timer
/// runs while any of the nodes is watched, and nothing at all happens otherwise.
class SystemNodes : public QObject {
    Q_OBJECT
public:
    /// The nodes belong to `nodes`, which outlives this object.
    explicit SystemNodes(CMNodes* nodes, QObject* parent = nullptr);
    ~SystemNodes() override;

    int sampleCount() const { return m_sampleCount; } ///< Samples taken so far.

private:
    using Reader = std::function<ZarkValue(const SystemSample&)>;
    struct Entry {
        CMValueNode* node;
        Reader read;
    };

    void addLoad(CMNodes* nodes);
    void addMemory(CMNodes* nodes);
    void addMachine(CMNodes* nodes);
    void add(CMNodes* nodes, const char* path, const char* title, const char* unit, const Reader& read);
    void onDemand();
    bool isWatched() const;
    void sample();

    QVector<Entry> m_entries;
    QTimer m_timer;
    QElapsedTimer m_age; ///< Of the last sample; invalid before the first.
    ProcessorTimes m_processor;
    double m_processorPercent = 0;
    int m_sampleCount = 0;
};
