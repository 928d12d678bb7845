#include "Host.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>

#include <sys/stat.h>

#include "CMNodes.h"
#include "CMRoot.h"
#include "CMStore.h"
#include "CMTreeFile.h"
#include "ClockWatch.h"
#include "ServiceNotifier.h"
#include "SignalWatch.h"
#include "WorkerStatus.h"
#include "dbglog.h"

namespace {

constexpr int settleLimitMs = 1200;
constexpr int pendingLimitMs = 30000;
constexpr int pendingCheckMs = 10;
/// Answers on their way out wait for sockets; a pause this long means that nothing more comes.
constexpr int lastAnswersQuietMs = 50;

const DbgLogger& logger()
{
    static const DbgLogger hostLogger("zark.host");
    return hostLogger;
}

/// Turns the event loop until nothing has happened for `quietMs` and `isDone`, for a second or so at the most.
void settle(int quietMs, const std::function<bool()>& isDone)
{
    const QDeadlineTimer limit(settleLimitMs);
    QElapsedTimer idle;
    idle.start();
    while (!limit.hasExpired()) {
        // Outside exec() Qt leaves deleteLater() alone unless asked.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        if (QCoreApplication::eventDispatcher()->processEvents(QEventLoop::AllEvents))
            idle.restart();
        else if (idle.hasExpired(quietMs) && isDone())
            return;
        else
            QThread::msleep(1);
    }
}

/// Where modules are looked for by name. Installed, they have a directory of their own; in a build tree they lie beside
/// the framework.
QString moduleDirectory()
{
    const QDir program(QCoreApplication::applicationDirPath());
    const QString installed = program.absoluteFilePath(QStringLiteral("../" ZARK_MODULE_DIR));
    return QFileInfo(installed).isDir() ? installed : program.absoluteFilePath(QStringLiteral("../lib"));
}

/// The state holds secrets: a directory that the host makes is its owner's alone.
bool makeStateDirectory(const QString& directory, QString* error)
{
    const QFileInfo info(QDir::cleanPath(directory));
    if (info.isDir())
        return true;
    QDir().mkpath(info.absolutePath());
    if (mkdir(QFile::encodeName(info.absoluteFilePath()).constData(), 0700) == 0)
        return true;
    *error = QStringLiteral("--state %1: %2").arg(directory, QString::fromLocal8Bit(strerror(errno)));
    return false;
}

} // namespace

Host::Host(const HostOptions& options, SignalWatch* signalWatch, ServiceNotifier* notifier)
    : m_options(options), m_log(options), m_loader(moduleDirectory()), m_overrides(options.overrides),
      m_authority(options.stateDirectory), m_notifier(notifier)
{
    connect(signalWatch, &SignalWatch::stopRequested, this, &Host::requestStop);
    connect(signalWatch, &SignalWatch::reloadRequested, this, &Host::reload);
}

Host::~Host()
{
    stop();
}

bool Host::start(QString* error)
{
    return m_log.apply(error) && openStore(error) && loadTree(error) && loadModules(error) && makeWorkers(error)
        && applyLastOverrides(error);
}

bool Host::openStore(QString* error)
{
    if (m_options.check)
        return true;
    if (!makeStateDirectory(m_options.stateDirectory, error))
        return false;
    m_store = std::make_unique<CMStore>();
    return m_store->open(QDir(m_options.stateDirectory).absoluteFilePath(QStringLiteral("state.db")), error);
}

bool Host::loadTree(QString* error)
{
    m_root = std::make_unique<CMRootWorker>(m_store.get());
    m_nodes = std::make_unique<CMNodes>(m_root->tree());
    if (!CMTreeFile::load(m_options.treeFile, m_nodes.get(), error) || !m_overrides.applyFound(m_root->tree(), error))
        return false;
    if (!m_options.check)
        applyAuthority();
    return true;
}

// Without an authority there is no HTTPS, which is no reason to do without the rest.
void Host::applyAuthority()
{
    QString error;
    if (!m_authority.apply(m_root->tree(), &error))
        dbglog_error(logger(), error);
}

void Host::checkAuthority()
{
    if (m_authority.isDue())
        applyAuthority();
}

bool Host::loadModules(QString* error)
{
    for (const QString& module : qAsConst(m_options.workers)) {
        const CMWorkerCreate create = m_loader.load(module, error);
        if (!create)
            return false;
        const auto same = std::find(m_creates.cbegin(), m_creates.cend(), create);
        if (same != m_creates.cend()) {
            *error = QStringLiteral("module '%1' is the same as '%2'")
                         .arg(module, m_options.workers.at(int(same - m_creates.cbegin())));
            return false;
        }
        m_creates.push_back(create);
    }
    return true;
}

bool Host::makeWorkers(QString* error)
{
    if (m_options.check)
        return true;
    const QVariantHash arguments{ { QStringLiteral("state"), QFileInfo(m_options.stateDirectory).absoluteFilePath() } };
    for (size_t i = 0; i < m_creates.size(); ++i) {
        std::unique_ptr<CMNodesWorker> worker(m_creates[i](arguments));
        const QString fault = workerFault(worker.get());
        if (!fault.isEmpty()) {
            *error = QStringLiteral("module '%1': %2").arg(m_options.workers.at(int(i)), fault);
            return false;
        }
        m_workers.push_back(std::move(worker));
    }
    return true;
}

QString Host::workerFault(const CMNodesWorker* worker) const
{
    if (!worker)
        return QStringLiteral("it made no worker");
    const bool isTwice = std::any_of(m_workers.cbegin(), m_workers.cend(),
        [worker](const std::unique_ptr<CMNodesWorker>& other) { return other->name() == worker->name(); });
    return isTwice ? QStringLiteral("there is a worker \"%1\" already").arg(worker->name()) : worker->fault();
}

bool Host::applyLastOverrides(QString* error)
{
    // A check makes no workers, so that a path that is missing may be one of theirs.
    if (m_options.check && !m_creates.empty())
        return true;
    return m_overrides.applyFound(m_root->tree(), error) && m_overrides.allApplied(error);
}

Host::ExitStatus Host::run()
{
    if (m_options.check)
        return Success;
    // Workers that start from queued calls get their turn before they are asked.
    settle(0, [] { return true; });
    awaitWorkers();
    if (!announce())
        return NoServer;
    m_notifier->ready();
    m_isReady = true;
    dbglog_info(logger(), "zark-host " ZARK_VERSION " started");
    const ClockWatch clockWatch([this] { checkAuthority(); });
    // quit() before exec() would be forgotten.
    if (!m_isStopRequested)
        QCoreApplication::exec();
    m_notifier->stopping();
    dbglog_info(logger(), "stopping");
    return Success;
}

// What a worker needs a moment for, it does on the event loop, beside the requests that it answers already.
void Host::awaitWorkers()
{
    const auto isPending = [](const std::unique_ptr<CMNodesWorker>& worker) {
        return !WorkerStatus::of(worker.get()).pending.isEmpty();
    };
    const QDeadlineTimer limit(pendingLimitMs);
    QTimer ticker;
    ticker.start(pendingCheckMs);
    while (!m_isStopRequested && !limit.hasExpired() && std::any_of(m_workers.cbegin(), m_workers.cend(), isPending))
        QCoreApplication::eventDispatcher()->processEvents(QEventLoop::WaitForMoreEvents);
}

bool Host::announce()
{
    bool canServe = true;
    bool serves = false;
    for (const auto& worker : m_workers) {
        const WorkerStatus status = WorkerStatus::of(worker.get());
        for (const QString& error : status.errors)
            dbglog_error(logger(), worker->name() << ": " << error);
        for (const QString& address : status.addresses)
            printf("listening on %s\n", qUtf8Printable(address));
        canServe = canServe && !status.failed();
        serves = serves || !status.addresses.isEmpty();
    }
    // Nobody asked for a server but for the one that lacks its authority.
    canServe = canServe && (serves || !m_authority.isWanted() || m_authority.isUsed());
    if (canServe && m_authority.isUsed())
        printf("certificate authority %s, SHA-256 %s\n", qUtf8Printable(m_authority.certificateFile()),
            qUtf8Printable(m_authority.fingerprint()));
    if (canServe)
        puts("ready");
    fflush(stdout);
    return canServe;
}

void Host::reload()
{
    // Before, everything is about to be read; afterwards, nothing is worth it, and "ready" would be untrue.
    if (!m_isReady || m_isStopRequested)
        return;
    m_notifier->reloading();
    QString error;
    if (m_log.apply(&error))
        dbglog_info(logger(), "read the log configuration again");
    else
        dbglog_error(logger(), error);
    if (m_authority.isWanted())
        applyAuthority();
    for (const auto& worker : m_workers)
        worker->reload();
    m_notifier->ready();
}

void Host::requestStop()
{
    m_isStopRequested = true;
    QCoreApplication::quit();
}

void Host::stop()
{
    for (auto worker = m_workers.rbegin(); worker != m_workers.rend(); ++worker)
        (*worker)->shutDown();
    // What is being written is answered when it is on the disk.
    if (!m_workers.empty())
        settle(lastAnswersQuietMs, [this] { return m_store->isIdle(); });
    while (!m_workers.empty())
        m_workers.pop_back();
    m_nodes.reset();
    m_root.reset();
    m_store.reset();
    if (m_isReady)
        dbglog_info(logger(), "stopped");
}
