#include "WebserverWorker.h"

#include <QTimer>

#include <algorithm>
#include <cstdlib>

#include "ApiResponder.h"
#include "CMActivateNode.h"
#include "CMGlobal.h"
#include "CMRoot.h"
#include "CMValueNode.h"
#include "ClockWatch.h"
#include "ConnectionTable.h"
#include "EventResponder.h"
#include "EventResponderShared.h"
#include "FileResponder.h"
#include "FirmwareUpdateResponder.h"
#include "HttpsSettings.h"
#include "LoopWatch.h"
#include "MatchHandler.h"
#include "MultipartHandler.h"
#include "MultipartResponderFactory.h"
#include "NotFoundHandler.h"
#include "PageLoader.h"
#include "PageResponder.h"
#include "ResponderConfiguration.h"
#include "ResponderFactory.h"
#include "ResponderHandler.h"
#include "ReverseProxyHandler.h"
#include "Server.h"
#include "ServerLimits.h"
#include "StaticHandler.h"
#include "StatusNodes.h"
#include "StreamResponder.h"
#include "UserDatabase.h"
#include "WebserverLog.h"
#include "ZarkJson.h"
#include "ZarkPaths.h"

namespace {

constexpr int MinimumPasswordLength = 6;
constexpr int FirstAnswersMilliseconds = 100;

ZarkValue setting(const CMPath& path)
{
    return ZarkValue(CMRoot()->getValue(path));
}

// The fallback for a missing or wrong one.
QString toText(const QVariantHash& arguments)
{
    QStringList pairs;
    for (auto entry = arguments.cbegin(); entry != arguments.cend(); ++entry)
        pairs.append(QStringLiteral("(%1, %2)").arg(entry.key(), entry.value().toString()));
    return QStringLiteral("QHash(%1)").arg(pairs.join(QString()));
}

void insertAddresses(const QVariantList& addresses, QSet<QString>* texts)
{
    for (const QVariant& address : addresses)
        texts->insert(ZarkNetworkAddress(address).ip());
}

QSet<QString> ipAddresses(const ZarkNetworkInfo& info)
{
    QSet<QString> texts;
    insertAddresses(info.wired().addresses(), &texts);
    insertAddresses(info.wireless().addresses(), &texts);
    const QVariantList accessPoints = info.softAp().aps();
    for (const QVariant& accessPoint : accessPoints)
        insertAddresses(ZarkNetworkInterface(accessPoint).addresses(), &texts);
    return texts;
}

// Browsers know no name that is in a device certificate, only addresses.
QString addressOf(const Server* server)
{
    const QString form =
        server->isHttps() ? QStringLiteral("https://127.0.0.1:%1/") : QStringLiteral("http://localhost:%1/");
    return form.arg(server->listeningPort());
}

} // namespace

CMNodesWorker* worker_create(const QVariantHash& arguments)
{
    return new WebserverWorker(arguments);
}

WebserverWorker::WebserverWorker(const QVariantHash& arguments) : CMNodesWorker(QStringLiteral("SoupServer"), arguments)
{
    dbglog_info(webserverLog(), toText(arguments));
    createStatusNodes();
    if (!fault().isEmpty())
        return;
    // For the spread of delays after failed authentications.
    std::srand(static_cast<unsigned int>(g_get_monotonic_time() / 1000));
    m_documentRoot = setting(ZarkWebserverDocumentRootPath()).string();
    m_defaultLocation = setting(ZarkWebserverDefaultLocationPath()).string();
    HttpsSettings::restrictTls();
    createSharedObjects();
    createChangePasswordNode();
    m_loopWatch = std::make_unique<LoopWatch>();
    m_statusNodes = std::make_unique<StatusNodes>(nodes(), name(), [this] { return status(); });
    startServers();
    watchSettings();
}

WebserverWorker::~WebserverWorker()
{
    for (Server* server : qAsConst(m_servers))
        server->disconnect(this);
    // Handlers use the factories as long as their server lives.
    qDeleteAll(m_servers);
    qDeleteAll(m_factories);
}

void WebserverWorker::createSharedObjects()
{
    const ServerLimits limits = ServerLimits::fromSettings();
    m_configuration = QSharedPointer<ResponderConfiguration>::create();
    m_configuration->setStrictRequests(setting(ZarkWebserverStrictPath()).bool_());
    m_configuration->setAuthMode(setting(ZarkWebserverAuthModePath()).webserverAuthMode());
    m_configuration->setMaximumValues(limits.values);
    m_configuration->setMaximumRows(limits.rows);
    if (isZarkFeatureEnabled(QStringLiteral("analytics")))
        m_configuration->watchAnalyticsEnabled(ZarkAnalyticsEnabledPath());
    m_eventShared = QSharedPointer<EventResponderShared>::create(limits.queuesPerClient);
    m_userDatabase = QSharedPointer<UserDatabase>::create();
    using UpdateFactory = DefaultMultipartResponderFactory<FirmwareUpdateResponder, QSharedPointer<UserDatabase>,
        QSharedPointer<ResponderConfiguration>>;
    m_updateFactory = std::make_unique<UpdateFactory>(m_userDatabase, m_configuration);
    m_pageLoader = QSharedPointer<PageLoader>::create(m_documentRoot);
    m_fetchBudget = QSharedPointer<FetchBudget>::create(
        FetchBudget::Limits{ limits.proxyFetches, limits.proxyFetchesPerClient, limits.proxyBytes });
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
    m_addressesNode = makeStatusNode(QStringLiteral("addresses"));
    m_errorsNode = makeStatusNode(QStringLiteral("errors"));
    m_pendingNode = makeStatusNode(QStringLiteral("pending"));
}

void WebserverWorker::startServers()
{
    const int port = setting(ZarkWebserverPortPath()).i32();
    if (port > 0)
        startServer(port, QString(), QString(), false);

    const HttpsSettings https = HttpsSettings::read();
    m_useDeviceCert = https.useDeviceCert;
    if (https.isWanted())
        startServer(https.port, https.certificatePem, https.keyPem, https.useDeviceCert);
}

void WebserverWorker::watchSettings()
{
    auto* language = new CMValueItem(this, ZarkUILanguagePath());
    connect(language, &CMValueItem::changed, this, &WebserverWorker::on_uiLanguage_changed);

    auto* strictTransport = new CMValueItem(this, ZarkWebserverStrictTransportSecondsPath());
    connect(strictTransport, &CMValueItem::changed, this, [this](const ZarkValue& value) {
        if (Server* server = httpsServer())
            server->setStrictTransport(value.i32());
    });

    // The first device certificate blocks the event loop while its key is made. Whoever waits for the device to start
    // gets the first answers over HTTP before.
    const Server* https = httpsServer();
    const bool later = https && https->waitsForAddresses();
    QTimer::singleShot(later ? FirstAnswersMilliseconds : 0, this, &WebserverWorker::watchNetworkInfo);

    HttpsSettings::guardNodes();
    for (const CMPath& path : { ZarkWebserverHttpsCertPath(), ZarkWebserverHttpsPrivateKeyPath() }) {
        connect(new CMValueItem(this, path), &CMValueItem::changed, this,
            [this](const ZarkValue&, const ZarkValue& previous) {
                // The first is what startServers() has read.
                if (previous.isValid())
                    followHttpsSettings(false);
            });
    }
    m_clockWatch = std::make_unique<ClockWatch>([this] { checkCertificate(); });
}

void WebserverWorker::watchNetworkInfo()
{
    auto* networkInfo = new CMValueItem(this, ZarkNetworkInfoPath());
    connect(networkInfo, &CMValueItem::changed, this, &WebserverWorker::on_networkInfo_changed);
    m_networkInfoExpected = setting(ZarkNetworkInfoPath()).isValid();
    publishStatus();
}

void WebserverWorker::checkCertificate()
{
    if (Server* server = httpsServer())
        server->checkCertificate();
}

Server* WebserverWorker::httpsServer() const
{
    const auto found =
        std::find_if(m_servers.cbegin(), m_servers.cend(), [](const Server* server) { return server->isHttps(); });
    return found == m_servers.cend() ? nullptr : *found;
}

// Certificate and key change one after the other: while one is empty, the server keeps what it has.
void WebserverWorker::followHttpsSettings(bool renewUnchanged)
{
    const HttpsSettings https = HttpsSettings::read();
    Server* server = httpsServer();
    if (!https.isWanted())
        return;
    // A pair that is meant for the other use would show: an authority as the server's own certificate.
    if (https.useDeviceCert != m_useDeviceCert) {
        dbglog_info(webserverLog(), "httpsUseDeviceCert has changed: HTTPS stays as it is until a restart");
        return;
    }
    if (server)
        return server->setCertificate(https.certificatePem, https.keyPem, renewUnchanged);
    startServer(https.port, https.certificatePem, https.keyPem, https.useDeviceCert);
    server = httpsServer();
    if (server && !m_ipAddresses.isEmpty())
        server->updateIpAddresses(m_ipAddresses);
}

void WebserverWorker::startServer(int port, const QString& certificatePem, const QString& keyPem, bool useDeviceCert)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_info(webserverLog(), "Port: " << port << " document root: " << m_documentRoot);
    auto* server = new Server(port, certificatePem, keyPem, useDeviceCert, ServerLimits::fromSettings(), this);
    m_failures.remove(port);
    if (!server->ok()) {
        dbglog_fatal(webserverLog(), "Failed to create server on port: " << port);
        m_failures.insert(port, QStringLiteral("port %1: %2").arg(port).arg(server->lastError()));
        delete server;
    } else {
        registerHandlers(server);
        server->setLanguage(setting(ZarkUILanguagePath()).string());
        server->setStrictTransport(setting(ZarkWebserverStrictTransportSecondsPath()).i32());
        server->start();
        m_servers.append(server);
        connect(server, &Server::stateChanged, this, &WebserverWorker::publishStatus);
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
    server->addHandler(QStringLiteral("/api/stream/"),
        new ResponderHandler(
            keep(makeDefaultResponderFactory<StreamResponder>(m_userDatabase, m_configuration)), root, nullptr));
    server->addHandler(QStringLiteral("/file/stream/"),
        new ResponderHandler(keep(makeDefaultResponderFactory<FileResponder>()), root, nullptr));

    auto* files = new MatchHandler(root, nullptr);
    server->addHandler(QStringLiteral("/proxy/"), new ReverseProxyHandler(root, nullptr, m_fetchBudget));
    // Browsers that fill in a form have no signature: what they are shown and send has to be hidden on its way.
    if (server->isHttps() && m_useDeviceCert)
        files->addHandler(QStringLiteral("*.fcgi"),
            new ResponderHandler(
                keep(makeDefaultResponderFactory<PageResponder>(m_userDatabase, m_configuration, m_pageLoader)), root,
                nullptr));
    files->addHandler(new StaticHandler(root, m_defaultLocation, QString(), nullptr));
    server->addHandler(QStringLiteral("/"), files);
    server->addEarlyHandler(QStringLiteral("/"), new MultipartHandler(m_updateFactory.get(), root, nullptr));
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
    QStringList errors = m_failures.values();
    QStringList pending;
    for (const Server* server : qAsConst(m_servers)) {
        const QString port = QStringLiteral("port %1: ").arg(server->port());
        if (server->isRunning())
            addresses.append(addressOf(server));
        else if (!server->lastError().isEmpty())
            errors.append(port + server->lastError());
        else if (server->waitsForAddresses() && m_networkInfoExpected)
            pending.append(port + QStringLiteral("waiting for the device's addresses"));
    }
    m_addressesNode->setMeasured(ZarkValue::fromStringList(addresses));
    m_errorsNode->setMeasured(ZarkValue::fromStringList(errors));
    m_pendingNode->setMeasured(ZarkValue::fromStringList(pending));
}

ServerStatus WebserverWorker::status() const
{
    ServerStatus status;
    for (const Server* server : qAsConst(m_servers)) {
        status.connections += server->connectionTable().census();
        status.counted += server->connectionTable().counters();
        status.certificateEnd += server->certificateEnd() * 1000;
    }
    status.queues = m_eventShared->queues();
    status.waitingPolls = m_eventShared->polls();
    status.pendingChanges = m_eventShared->pendingChanges();
    status.heldAnswers = m_configuration->heldAnswers();
    status.failedAuthentications = m_configuration->failures();
    status.fetches = m_fetchBudget->underWay();
    status.finishedFetches = m_fetchBudget->finished();
    status.longestStall = m_loopWatch->longestStall();
    return status;
}

void WebserverWorker::reload()
{
    dbglog_scopedFunction(webserverLog());
    followHttpsSettings(true);
}

void WebserverWorker::shutDown()
{
    dbglog_scopedFunction(webserverLog());
    m_clockWatch.reset();
    for (Server* server : qAsConst(m_servers))
        server->drain();
    m_eventShared->eventQueues()->shutDown();
}

void WebserverWorker::on_uiLanguage_changed(const ZarkValue& value)
{
    for (Server* server : qAsConst(m_servers))
        server->setLanguage(value.string());
}

void WebserverWorker::on_networkInfo_changed(const ZarkValue& value)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), ZarkJson::serialize(value.toVariant()));
    const QSet<QString> addresses = ipAddresses(value.networkInfo());
    m_networkInfoExpected = false;
    if (addresses != m_ipAddresses) {
        dbglog_info(webserverLog(), "Updating IP addr list: " << addresses.values().join(QStringLiteral(", ")));
        for (Server* server : qAsConst(m_servers))
            server->updateIpAddresses(addresses);
        m_ipAddresses = addresses;
    }
    publishStatus();
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
    CMVoidReply stored;
    if (!m_userDatabase->changePassword(change.name, change.oldPassword, change.newPassword, stored))
        return failPasswordChange(change.name, reply);
    stored.onFinished(this, [this, name = change.name, reply](const CMError& error) mutable {
        if (!error.isEmpty())
            return failPasswordChange(name, reply);
        m_changePasswordNode->setPermission(ZarkPermission::Protected);
        dbglog_info(webserverLog(), "Password change done");
        reply.finish();
    });
}

void WebserverWorker::failPasswordChange(const QString& name, CMSetDataRequest request)
{
    dbglog_warn(webserverLog(), "Unable to change password for '" << name << "': db error");
    request.fail(CMError(CMError::Failed, "Error changing password"));
}
