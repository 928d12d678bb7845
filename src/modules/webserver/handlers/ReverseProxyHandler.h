#pragma once

#include "Handler.h"
#include "HttpClient.h"

/// Fetches the address that stands, Base64-encoded, behind "proxy/" in the request's URI, and answers with what it
/// finds there: status 200, body and content type, nothing else. Everything that is not a 200 becomes a 404.
///
/// Anyone who reaches the server can have it fetch for him. Two things bound that: the hosts may be listed in
/// settings:webserver/proxyAllowedHosts (empty: any), and a client that is not this machine never reaches what only
/// this machine should, see isFetchableForRemote().
class ReverseProxyHandler : public Handler {
    Q_OBJECT
public:
    ReverseProxyHandler(const QString& path, QObject* parent) : Handler(path, parent) { }

    /// Pauses the exchange until the fetch ends; a client that leaves before ends the fetch.
    void handle(Message* message) override;

    /// The decoded target; empty when there is none.
    static QString extractOriginalUrl(const QString& uri);
    /// False for loopback, unspecified and link-local addresses, however they are written: the device trusts its own
    /// loopback address, and would let a remote client write any node through it.
    static bool isFetchableForRemote(const QHostAddress& address);

private:
    void serveOriginalUrl(const QString& url, Message* message);
    void httpCallback(const HttpClientResult& result, Message* message);
};
