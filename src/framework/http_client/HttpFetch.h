#pragma once

#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include "HttpClient.h"
#include "HttpResponseParser.h"

class QHostInfo;
class QTcpSocket;

/// One fetch: looks the name up, connects to the first address that is accepted and reachable, asks, reads, reports.
///
/// The address that the filter judges is the one that the socket is given, so that a name server cannot answer the
/// filter one thing and the socket another. One connection a fetch, straight to the server whatever proxy the
/// environment names, and nothing kept between two fetches. Deletes itself after the report or cancel(), and goes with
/// the application when that ends first.
class HttpFetch : public QObject {
    Q_OBJECT
public:
    HttpFetch(const QUrl& url, const HttpClientOptions& options, const HttpClient::Callback& callback);
    ~HttpFetch() override;

    /// Ends without a report. Harmless after the end.
    void cancel();

private:
    void start();
    void onLookedUp(const QHostInfo& info);
    void connectNext();
    void onConnected();
    void onReadyRead();
    void onFailed();
    void sendRequest();
    QByteArray request() const;
    bool isSecure() const;
    QTcpSocket* makeSocket();
    void dropSocket();
    bool finishIf(HttpResponseParser::State state);
    void fail(HttpClientResult::Failure failure);
    void finish(HttpClientResult result);
    void release();

    QUrl m_url;
    HttpClientOptions m_options;
    HttpClient::Callback m_callback;
    HttpResponseParser m_parser;
    QTimer m_deadline;
    QTimer m_attempt; ///< Moves on from an address that swallows packets while others are left.
    QList<QHostAddress> m_candidates;
    int m_attemptMs = 0;
    int m_lookup = -1;
    bool m_tried = false; ///< An address was accepted.
    bool m_sent = false;
    QTcpSocket* m_socket = nullptr;
};
