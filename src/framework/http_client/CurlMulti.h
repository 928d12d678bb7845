#pragma once

#include <QHash>
#include <QObject>
#include <QTimer>

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <unordered_map>

class QSocketNotifier;

/// libcurl's transfers on Qt's event loop: it names the sockets and the time that it waits for, and is called when one
/// of them is due. On the thread that made it.
class CurlMulti : public QObject {
    Q_OBJECT
public:
    using Done = std::function<void(CURLcode)>;

    /// The one that all transfers share; it goes with the last who holds it, and keeps nothing between two transfers.
    static std::shared_ptr<CurlMulti> shared();

    CurlMulti();
    /// Every transfer has been removed or is done.
    ~CurlMulti() override;

    /// Starts the transfer. `done` is called once, from the event loop, when it has ended and is no longer in here,
    /// unless remove() comes first.
    void add(CURL* transfer, const Done& done);
    /// Not from inside a callback of libcurl. Harmless for a transfer that is not in here.
    void remove(CURL* transfer);

private:
    struct Watch {
        std::unique_ptr<QSocketNotifier> read;
        std::unique_ptr<QSocketNotifier> write;
    };

    static int onSocket(CURL* transfer, curl_socket_t socket, int what, void* self, void* unused);
    static int onTimer(CURLM* multi, long milliseconds, void* self);
    void follow(std::unique_ptr<QSocketNotifier>* notifier, curl_socket_t socket, bool wanted, int event);
    void proceed(curl_socket_t socket, int event);

    CURLM* m_multi;
    QTimer m_timer;
    QHash<CURL*, Done> m_transfers;
    std::unordered_map<curl_socket_t, Watch> m_watched;
};
