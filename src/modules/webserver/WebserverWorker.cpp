#include "WebserverWorker.h"

#include <cstdlib>

#include "CMActivateNode.h"
#include "CMGlobal.h"
#include "CMRoot.h"
#include "CMValueNode.h"
#include "Server.h"
#include "ServerLimits.h"
#include "UserDatabase.h"
#include "WebserverLog.h"
#include "ZarkPaths.h"
#include "handlers/MatchHandler.h"
#include "handlers/NotFoundHandler.h"
#include "handlers/ResponderHandler.h"
#include "handlers/StaticHandler.h"
#include "responders/ApiResponder.h"
#include "responders/EventResponder.h"
#include "responders/EventResponderShared.h"
#include "responders/FileResponder.h"
#include "responders/ResponderConfiguration.h"
#include "responders/ResponderFactory.h"

namespace {

constexpr int MinimumPasswordLength = 6;

ZarkValue setting(const CMPath& path)
{
    return ZarkValue(CMRoot()->getValue(path));
}

QString toText(const QVariantHash& arguments)
{
    QStringList pairs;
    for (auto entry = arguments.cbegin(); entry != arguments.cend(); ++entry)
        pairs.append(QStringLiteral("(%1, %2)").arg(entry.key(), entry.value().toString()));
    return QStringLiteral("QHash(%1)").arg(pairs.join(QString()));
}

} // namespace

CMNodesWorker* worker_create(const QVariantHash& arguments)
{
    return new WebserverWorker(arguments);
}

WebserverWorker::WebserverWorker(const QVariantHash& arguments) : CMNodesWorker(QStringLiteral("SoupServer"), arguments)
{
    dbglog_info(webserverLog(), toText(arguments));
    // For the spread of delays after failed authentications.
    std::srand(static_cast<unsigned int>(g_get_monotonic_time() / 1000));
    m_documentRoot = setting(ZarkWebserverDocumentRootPath()).string();
    m_defaultLocation = setting(ZarkWebserverDefaultLocationPath()).string();
    createSharedObjects();
    createChangePasswordNode();
    createStatusNodes();
    startServers();

    auto* language = new CMValueItem(this, ZarkUILanguagePath());
    connect(language, &CMValueItem::changed, this, &WebserverWorker::on_uiLanguage_changed);
}

WebserverWorker::~WebserverWorker()
{
    // Handlers use the factories as long as their server lives.
    qDeleteAll(m_servers);
    qDeleteAll(m_factories);
}

void WebserverWorker::createSharedObjects()
{
    m_configuration = QSharedPointer<ResponderConfiguration>::create();
    m_configuration->setStrictRequests(setting(ZarkWebserverStrictPath()).bool_());
    m_configuration->setAuthMode(setting(ZarkWebserverAuthModePath()).webserverAuthMode());
    if (isZarkFeatureEnabled(QStringLiteral("analytics")))
        m_configuration->watchAnalyticsEnabled(ZarkAnalyticsEnabledPath());
    m_eventShared = QSharedPointer<EventResponderShared>::create();
    m_userDatabase = QSharedPointer<UserDatabase>::create();
}

void WebserverWorker::createChangePasswordNode()
{
    m_changePasswordNode = CMActivateNode::create(nodes(), ZarkWebserverChangePasswordPath());
    if (!m_changePasswordNode)
        return;
    m_changePasswordNode->setTitle(TrString("Change password"));
    m_changePasswordNode->setArgumentType(ZarkValueType::WebserverChangePassword);
    m_changePasswordNode->doSetInvoke([this](const CMSetDataRequest& request) { on_changePassword_invoked(request); });
    // Until there is a password, nobody could sign the request that sets it.
    const bool notSetUp = m_userDatabase->isEmpty() || m_userDatabase->isEmptyPassword();
    m_changePasswordNode->setPermission(notSetUp ? ZarkPermission::Open : ZarkPermission::Protected);
}

void WebserverWorker::createStatusNodes()
{
    const ZarkValue none = ZarkValue::fromStringList({});
    m_addressesNode = CMValueNode::create(nodes(), CMPath::fromSegments(name(), { "status", "addresses" }), none);
    m_errorsNode = CMValueNode::create(nodes(), CMPath::fromSegments(name(), { "status", "errors" }), none);
}

void WebserverWorker::startServers()
{
    const int port = setting(ZarkWebserverPortPath()).i32();
    if (port > 0)
        startServer(port, QString(), QString(), false);

    const QString certificate = setting(ZarkWebserverHttpsCertPath()).string();
    const QString key = setting(ZarkWebserverHttpsPrivateKeyPath()).string();
    const bool useDeviceCert = setting(ZarkWebserverHttpsUseDeviceCertPath()).bool_();
    const int httpsPort = setting(ZarkWebserverHttpsPortPath()).i32();
    if (!certificate.isEmpty() && !key.isEmpty() && httpsPort > 0)
        startServer(httpsPort, certificate, key, useDeviceCert);
}

void WebserverWorker::startServer(int port, const QString& certificatePem, const QString& keyPem, bool useDeviceCert)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_info(webserverLog(), "Port: " << port << " document root: " << m_documentRoot);
    auto* server = new Server(port, certificatePem, keyPem, useDeviceCert, ServerLimits::fromSettings(), this);
    if (!server->ok()) {
        dbglog_fatal(webserverLog(), "Failed to create server on port: " << port);
        m_failures.append(QStringLiteral("port %1: %2").arg(port).arg(server->lastError()));
        delete server;
    } else {
        registerHandlers(server);
        server->start();
        m_servers.append(server);
    }
    publishStatus();
}

void WebserverWorker::registerHandlers(Server* server)
{
    const QString root = documentRoot();
    server->addHandler(QStringLiteral("/"), new Handler(root, nullptr));
    if (!isZarkFeatureEnabled(QStringLiteral("webclient")))
        server->addHandler(QStringLiteral("/webclient/"), new NotFoundHandler(root, nullptr));
    server->addHandler(QStringLiteral("/api/"),
        new ResponderHandler(
            keep(makeDefaultResponderFactory<ApiResponder>(m_userDatabase, m_configuration)), root, nullptr));
    server->addHandler(QStringLiteral("/api/event/"),
        new ResponderHandler(
            keep(makeDefaultResponderFactory<EventResponder>(m_eventShared, m_userDatabase, m_configuration)), root,
            nullptr));
    server->addHandler(QStringLiteral("/file/stream/"),
        new ResponderHandler(keep(makeDefaultResponderFactory<FileResponder>()), root, nullptr));

    auto* files = new MatchHandler(root, nullptr);
    files->addHandler(new StaticHandler(root, m_defaultLocation, QString(), nullptr));
    server->addHandler(QStringLiteral("/"), files);
}

ResponderFactory* WebserverWorker::keep(ResponderFactory* factory)
{
    m_factories.append(factory);
    return factory;
}

// What the host tells the user.
void WebserverWorker::publishStatus()
{
    QStringList addresses;
    QStringList errors = m_failures;
    for (const Server* server : qAsConst(m_servers)) {
        if (server->isRunning())
            addresses.append(QStringLiteral("%1://localhost:%2/")
                                 .arg(server->isHttps() ? QStringLiteral("https") : QStringLiteral("http"))
                                 .arg(server->listeningPort()));
        else if (!server->lastError().isEmpty())
            errors.append(QStringLiteral("port %1: %2").arg(server->port()).arg(server->lastError()));
    }
    m_addressesNode->setMeasured(ZarkValue::fromStringList(addresses));
    m_errorsNode->setMeasured(ZarkValue::fromStringList(errors));
}

void WebserverWorker::shutDown()
{
    dbglog_scopedFunction(webserverLog());
    m_eventShared->eventQueues()->shutDown();
}

void WebserverWorker::on_uiLanguage_changed(const ZarkValue& value)
{
    for (Server* server : qAsConst(m_servers))
        server->setLanguage(value.string());
}

void WebserverWorker::on_changePassword_invoked(const CMSetDataRequest& request)
{
    dbglog_scopedFunction(webserverLog());
    const ZarkWebserverChangePassword change = request.value().webserverChangePassword();
    // The request itself holds passwords and is not logged.
    dbglog_debug(webserverLog(), "Password change requested for '" << change.name << "'");
    CMSetDataRequest reply = request;
    if (m_userDatabase->user(change.name).name() != change.name || change.name.isEmpty()) {
        dbglog_warn(webserverLog(), "Unknown user '" << change.name << "'");
        return reply.fail(CMError(CMError::Failed, "Invalid username/password"));
    }
    if (change.newPassword.size() < MinimumPasswordLength) {
        dbglog_warn(webserverLog(), "Changing password for '" << change.name << "': too short");
        return reply.fail(CMError(CMError::Failed, "New password too short"));
    }
    dbglog_info(webserverLog(), "Changing password for '" << change.name << "'");
    if (!m_userDatabase->changePassword(change.name, change.oldPassword, change.newPassword)) {
        dbglog_warn(webserverLog(), "Unable to change password for '" << change.name << "': db error");
        return reply.fail(CMError(CMError::Failed, "Error changing password"));
    }
    m_changePasswordNode->setPermission(ZarkPermission::Protected);
    dbglog_info(webserverLog(), "Password change done");
    reply.finish();
}
