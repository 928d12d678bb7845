#include "ReverseProxyHandler.h"

#include <QHostAddress>
#include <QNetworkInterface>
#include <QPointer>

#include <libsoup/soup.h>

#include "CMRoot.h"
#include "Message.h"
#include "MimeTypes.h"
#include "WebserverLog.h"
#include "ZarkPaths.h"

namespace {

constexpr int ReadSizeLimit = 5 * 1024 * 1024;
constexpr int TimeoutMilliseconds = 30000;
const QLatin1String Marker("proxy/");

void answerNotFound(Message* message, const QByteArray& text)
{
    message->setStatus(SOUP_STATUS_NOT_FOUND, QString());
    message->setResponseBody(text, MimeTypes::Text::plain());
}

/// Of every interface, whatever its state, as they are now.
QList<QHostAddress> ownAddresses()
{
    QList<QHostAddress> addresses;
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface& interface : interfaces) {
        const QList<QNetworkAddressEntry> entries = interface.addressEntries();
        for (const QNetworkAddressEntry& entry : entries)
            addresses.append(entry.ip());
    }
    return addresses;
}

/// The IPv4 address inside an IPv6 one: mapped (::ffff:a.b.c.d), compatible (::a.b.c.d), translated (64:ff9b::a.b.c.d,
/// RFC 6052) or tunnelled (2002:aabb:ccdd::, RFC 3056); any other address as it is.
QHostAddress unwrapped(const QHostAddress& address)
{
    bool isIPv4 = false;
    const quint32 direct = address.toIPv4Address(&isIPv4);
    if (isIPv4)
        return QHostAddress(direct);
    const Q_IPV6ADDR bytes = address.toIPv6Address();
    const auto embedded = [&bytes](int at) {
        return QHostAddress(quint32(bytes[at]) << 24 | quint32(bytes[at + 1]) << 16 | quint32(bytes[at + 2]) << 8
            | quint32(bytes[at + 3]));
    };
    if (address.isInSubnet(QHostAddress(QStringLiteral("64:ff9b::")), 96))
        return embedded(12);
    if (address.isInSubnet(QHostAddress(QStringLiteral("2002::")), 16))
        return embedded(2);
    const bool isCompatible = address.isInSubnet(QHostAddress(QStringLiteral("::")), 96)
        && address != QHostAddress(QHostAddress::LocalHostIPv6) && address != QHostAddress(QHostAddress::AnyIPv6);
    return isCompatible ? embedded(12) : address;
}

} // namespace

void ReverseProxyHandler::handle(Message* message)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "ReverseProxyHandler: request: '" << message->fullUri() << "'");
    const QString url = extractOriginalUrl(message->fullUri());
    if (!url.isEmpty())
        return serveOriginalUrl(url, message);
    dbglog_error(webserverLog(), "Couldn't extract URL");
    answerNotFound(message, QByteArrayLiteral("The original requested url could not be found."));
}

QString ReverseProxyHandler::extractOriginalUrl(const QString& uri)
{
    dbglog_scopedFunction(webserverLog());
    const int marker = uri.indexOf(Marker);
    if (marker < 0)
        return {};
    return QString::fromUtf8(QByteArray::fromBase64(uri.mid(marker + Marker.size()).toUtf8()));
}

bool ReverseProxyHandler::isAllowedHost(const QString& host, const ZarkValue& allowed)
{
    dbglog_scopedFunction(webserverLog());
    if (!allowed.isValid())
        return true;
    if (allowed.type() != ZarkValueType::StringList)
        return false; // Somebody meant to restrict the proxy, and nobody knows to what.
    const QStringList hosts = allowed.stringList();
    return hosts.isEmpty() || hosts.contains(host, Qt::CaseInsensitive);
}

bool ReverseProxyHandler::isFetchableForRemote(const QHostAddress& address, const QList<QHostAddress>& own)
{
    dbglog_scopedFunction(webserverLog());
    QHostAddress target = unwrapped(address);
    target.setScopeId({});
    bool isIPv4 = false;
    const quint32 ipv4 = target.toIPv4Address(&isIPv4);
    // All of 0.0.0.0/8 is "this network" (RFC 1122, section 3.2.1.3).
    if (isIPv4 && ipv4 >> 24 == 0)
        return false;
    return !own.isEmpty() && !own.contains(target) && !target.isNull() && !target.isLoopback() && !target.isLinkLocal()
        && target != QHostAddress(QHostAddress::AnyIPv6);
}

void ReverseProxyHandler::serveOriginalUrl(const QString& url, Message* message)
{
    message->pause();
    const ZarkUrl target(url);
    const ZarkValue allowed(CMRoot()->getValue(ZarkWebserverProxyAllowedHostsPath()));
    const QSharedPointer<FetchBudget::Share> share = m_budget->admit(message->sender());
    if (!share || !isAllowedHost(target.host(), allowed)) {
        HttpClientResult refused;
        refused.status = HttpClientResult::Refused;
        return httpCallback(refused, message);
    }
    HttpClientOptions options;
    options.setReadSizeLimit(ReadSizeLimit);
    options.setTimeoutMs(TimeoutMilliseconds);
    if (!message->isFromLocalhost()) {
        // Asked at each connection: the addresses may change after the name was looked up.
        options.setAddressFilter(
            [](const QHostAddress& address) { return isFetchableForRemote(address, ownAddresses()); });
    }
    options.setBodyMeter([share](int bytes) { return share->hold(bytes); });
    const QPointer<Message> guarded(message);
    const HttpClient::Handle fetch = HttpClient::get(target, options, [this, guarded](const HttpClientResult& result) {
        if (guarded)
            httpCallback(result, guarded);
    });
    // The client has the answer or has gone, or the server has, with all its handlers and their messages. The share is
    // held until then, and by a fetch that does not end so soon.
    connect(message, &Message::finished, message, [fetch, held = share]() mutable {
        fetch.cancel();
        held.reset();
    });
    connect(message, &QObject::destroyed, [fetch] { fetch.cancel(); });
}

void ReverseProxyHandler::httpCallback(const HttpClientResult& result, Message* message)
{
    // Each branch ends with a write to the body, which resumes the exchange.
    if (result.status != SOUP_STATUS_OK) {
        dbglog_error(webserverLog(), "Couldn't fetch original content from source");
        return answerNotFound(message, QByteArrayLiteral("Could not fetch original content from source"));
    }
    message->setStatus(SOUP_STATUS_OK, QString());
    message->setHeader(QByteArrayLiteral("Content-Security-Policy"), QByteArrayLiteral("sandbox"));
    message->setHeader(QByteArrayLiteral("X-Content-Type-Options"), QByteArrayLiteral("nosniff"));
    const QByteArray type = result.headers.value(QByteArrayLiteral("Content-Type"));
    if (!type.isEmpty())
        message->setContentType(QString::fromUtf8(type));
    message->responseBodyAdd(result.body);
}
