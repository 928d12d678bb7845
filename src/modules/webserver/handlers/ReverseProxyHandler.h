#pragma once

#include "FetchBudget.h"
#include "Handler.h"
#include "HttpClient.h"
#include "ZarkValue.h"

/// Fetches the address that stands, Base64-encoded, behind "proxy/" in the request's URI, and answers with what it
/// finds there: status 200, body and content type, nothing else. Everything that is not a 200 becomes a 404.
///
/// Anyone who reaches the server can have it fetch for him. Three things bound that: the hosts may be listed in
/// settings:webserver/proxyAllowedHosts (empty: any; of another type: none), a client that is not this machine never
/// reaches this machine, see isFetchableForRemote(), and all fetches share a budget.
///
/// What is fetched comes under this server's name, and must not act in it: a browser runs no script of it, and takes it
/// for nothing but the type that the source gave.
class ReverseProxyHandler : public Handler {
    Q_OBJECT
public:
    /// The budget is shared with the handlers of other servers; by default nothing is bounded but each single fetch.
    ReverseProxyHandler(const QString& path, QObject* parent,
        const QSharedPointer<FetchBudget>& budget = QSharedPointer<FetchBudget>::create(FetchBudget::Limits()))
        : Handler(path, parent), m_budget(budget)
    {
    }

    /// Pauses the exchange until the fetch ends; a client that leaves before ends the fetch.
    void handle(Message* message) override;

    /// The decoded target; empty when there is none.
    static QString extractOriginalUrl(const QString& uri);
    /// Whether the list of hosts, the value of the setting, lets this one be fetched: an empty or missing list every
    /// one, a value of another type none. Without regard to case.
    static bool isAllowedHost(const QString& host, const ZarkValue& allowed);
    /// False for loopback, unspecified and link-local addresses and for those of `own`, however they are written: the
    /// device trusts its loopback address, would let a remote client write any node through it, and may serve on each
    /// of its addresses what is not for every network. Without `own`, which a device never is, none is fetchable.
    static bool isFetchableForRemote(const QHostAddress& address, const QList<QHostAddress>& own);

private:
    void serveOriginalUrl(const QString& url, Message* message);
    void httpCallback(const HttpClientResult& result, Message* message);

    QSharedPointer<FetchBudget> m_budget;
};
