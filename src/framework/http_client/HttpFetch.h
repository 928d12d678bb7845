#pragma once

#include <QObject>

#include <curl/curl.h>

#include <functional>
#include <memory>

#include "HttpClientOptions.h"
#include "HttpClientResult.h"

class CurlMulti;
class QUrl;

/// One fetch: a transfer of libcurl's, with the bounds that are ours.
///
/// The address that the filter judges is the one that the socket is made for, so that a name server cannot answer the
/// filter one thing and the socket another. One connection a fetch, straight to the server whatever proxy the
/// environment names, and nothing kept between two fetches.
///
/// A thread of libcurl's looks names up, and nothing can stop it. So a fetch that is cancelled meanwhile stays, silent,
/// until the look-up ends or its time is up, and counts as a look-up under way. The end of the process waits for none.
///
/// Deletes itself after the report or cancel(), and goes with the application when that ends first.
class HttpFetch : public QObject {
    Q_OBJECT
public:
    using Callback = std::function<void(const HttpClientResult&)>;

    HttpFetch(const QUrl& url, const HttpClientOptions& options, const Callback& callback);
    ~HttpFetch() override;

    /// Ends without a report. Harmless after the end, and from inside the callbacks of the options.
    void cancel();

private:
    bool configure(const QUrl& url);
    void setLookingUp(bool lookingUp);
    void onDone(CURLcode code);
    HttpClientResult::Failure failureOf(CURLcode code) const;
    void readHeaders();
    void finish(int status);

    static int onLookUp(void* resolver, void* unused, void* self);
    static curl_socket_t openSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
    static size_t onHeader(char* data, size_t size, size_t count, void* self);
    static size_t onBody(char* data, size_t size, size_t count, void* self);

    HttpClientOptions m_options;
    Callback m_callback;
    HttpClientResult m_result;
    std::shared_ptr<CurlMulti> m_multi;
    CURL* m_transfer;
    size_t m_headerBytes = 0;
    const bool m_isAddress; ///< The URL's host is no name.
    bool m_lookingUp = false;
    bool m_accepted = false; ///< An address was.
    bool m_refused = false; ///< An address was.
    bool m_tooLarge = false;
    bool m_ended = false; ///< Reported or cancelled.
};
