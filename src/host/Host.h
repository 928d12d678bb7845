#pragma once

#include <QObject>

#include <memory>
#include <vector>

#include "CMNodesWorker.h"
#include "DevelopmentAuthority.h"
#include "HostOptions.h"
#include "LogSetup.h"
#include "ModuleLoader.h"
#include "Overrides.h"

class CMRootWorker;
class CMStore;
class ServiceNotifier;
class SignalWatch;

/// One device: the store, the tree, and the modules' workers on one event loop.
///
/// start() opens the store, makes the root, loads the tree file, applies --set and the development authority, loads the
/// modules and makes their workers; run() announces the addresses and turns the event loop until a signal; stop()
/// undoes it all in the opposite order, so that each piece still finds what it stands on.
class Host : public QObject {
    Q_OBJECT
public:
    enum ExitStatus {
        Success = 0,
        Fault = 2, ///< Options, tree file, module or state directory.
        NoServer = 3, ///< A worker wanted to serve and could not.
    };

    Host(const HostOptions& options, SignalWatch* signalWatch, ServiceNotifier* notifier);
    ~Host() override;

    /// Starts, or with --check only looks for faults. False with one line in `error`.
    bool start(QString* error);
    /// Returns the exit status after SIGTERM or SIGINT, or at once when there is nothing to run.
    ExitStatus run();

private:
    bool openStore(QString* error);
    bool loadTree(QString* error);
    bool loadModules(QString* error);
    bool makeWorkers(QString* error);
    QString workerFault(const CMNodesWorker* worker) const;
    bool applyLastOverrides(QString* error);
    void awaitWorkers();
    bool announce(); ///< False when some worker cannot serve.
    void reload();
    void applyAuthority();
    void checkAuthority();
    void requestStop();
    void stop();

    HostOptions m_options;
    LogSetup m_log;
    ModuleLoader m_loader;
    Overrides m_overrides;
    DevelopmentAuthority m_authority;
    ServiceNotifier* m_notifier;
    std::vector<CMWorkerCreate> m_creates; ///< In the order of the options' workers.
    bool m_isReady = false;
    bool m_isStopRequested = false;

    // Each stands on those before it.
    std::unique_ptr<CMStore> m_store;
    std::unique_ptr<CMRootWorker> m_root;
    std::unique_ptr<CMNodes> m_nodes;
    std::vector<std::unique_ptr<CMNodesWorker>> m_workers;
};
