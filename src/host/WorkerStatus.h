#pragma once

#include <QStringList>

class CMNodesWorker;

/// What a worker tells its host in its status nodes.
struct WorkerStatus {
    bool serves = false; ///< The worker has a list of addresses, be it empty.
    QStringList addresses;
    QStringList errors;
    QStringList pending; ///< What it still waits for, or works on, before it has started.

    static WorkerStatus of(CMNodesWorker* worker);

    /// It wanted to serve and cannot. (No address and no error: no server is wanted.)
    bool failed() const { return serves && addresses.isEmpty() && !errors.isEmpty(); }
};
