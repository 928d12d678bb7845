#pragma once

#include <QList>
#include <QMap>
#include <QSet>
#include <QSharedPointer>

#include <memory>

#include <memory>

#include "CMNodesWorker.h"
#include "CMValueItem.h"

class CMActivateNode;
class CMSetDataRequest;
class CMValueNode;
class ClockWatch;
class EventResponderShared;
class LoopWatch;
class StatusNodes;
struct ServerStatus;
class FetchBudget;
class ResponderConfiguration;
class MultipartResponderFactory;
class PageLoader;
class ResponderFactory;
class Server;
class UserDatabase;

/// The web server as the framework loads it: reads the settings, builds one HTTP and at most one HTTPS server with the
/// same URL tree, and follows the settings that may change while they run.
class WebserverWorker : public CMNodesWorker {
    Q_OBJECT
public:
    explicit WebserverWorker(const QVariantHash& arguments);
    ~WebserverWorker() override;

    const QString& documentRoot() const { return m_documentRoot; }
    /// Builds a server, registers the URL tree and starts it. One that cannot be built is logged and dropped.
    void startServer(int port, const QString& certificatePem, const QString& keyPem, bool useDeviceCert);

    /// Reads the HTTPS certificate's settings again, and makes the device certificate anew.
    void reload() override;
    void shutDown() override;

private:
    void createSharedObjects();
    void createChangePasswordNode();
    void createStatusNodes();
    void startServers();
    void watchSettings();
    void watchNetworkInfo();
    void followHttpsSettings(bool renewUnchanged);
    void checkCertificate();
    Server* httpsServer() const;
    void registerHandlers(Server* server);
    void publishStatus();
    ServerStatus status() const;
    ResponderFactory* keep(ResponderFactory* factory);

    void on_changePassword_invoked(const CMSetDataRequest& request);
    void failPasswordChange(const QString& name, CMSetDataRequest request);
    void on_uiLanguage_changed(const ZarkValue& value);
    void on_networkInfo_changed(const ZarkValue& value);

    QString m_documentRoot;
    QString m_defaultLocation;
    QList<Server*> m_servers;
    QList<ResponderFactory*> m_factories; ///< Owned.
    std::unique_ptr<MultipartResponderFactory> m_updateFactory;
    QMap<int, QString> m_failures; ///< Servers that could not be built, by port.
    CMActivateNode* m_changePasswordNode = nullptr;
    CMValueNode* m_addressesNode = nullptr;
    CMValueNode* m_errorsNode = nullptr;
    CMValueNode* m_pendingNode = nullptr;
    QSet<QString> m_ipAddresses; ///< The last that the servers were told.
    bool m_networkInfoExpected = true; ///< Until the network information, or its absence, is known.
    bool m_useDeviceCert = false; ///< As it was at the start.
    std::unique_ptr<ClockWatch> m_clockWatch;
    std::unique_ptr<LoopWatch> m_loopWatch;
    std::unique_ptr<StatusNodes> m_statusNodes;
    QSharedPointer<ResponderConfiguration> m_configuration;
    QSharedPointer<EventResponderShared> m_eventShared;
    QSharedPointer<UserDatabase> m_userDatabase;
    QSharedPointer<FetchBudget> m_fetchBudget;
    QSharedPointer<PageLoader> m_pageLoader;
};

/// The entry point of the module. Makes the worker on the calling thread, whose event loop must run GLib.
extern "C" Q_DECL_EXPORT CMNodesWorker* worker_create(const QVariantHash& arguments);
