#include "CurlMulti.h"

#include <QAbstractEventDispatcher>
#include <QSocketNotifier>

std::shared_ptr<CurlMulti> CurlMulti::shared()
{
    static std::weak_ptr<CurlMulti> present;
    std::shared_ptr<CurlMulti> multi = present.lock();
    if (!multi)
        present = multi = std::make_shared<CurlMulti>();
    return multi;
}

CurlMulti::CurlMulti() : m_multi(curl_multi_init())
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, [this] { proceed(CURL_SOCKET_TIMEOUT, 0); });
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, onSocket);
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, onTimer);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
}

CurlMulti::~CurlMulti()
{
    curl_multi_cleanup(m_multi);
}

void CurlMulti::add(CURL* transfer, const Done& done)
{
    m_transfers.insert(transfer, done);
    curl_multi_add_handle(m_multi, transfer);
}

void CurlMulti::remove(CURL* transfer)
{
    if (m_transfers.remove(transfer))
        curl_multi_remove_handle(m_multi, transfer);
}

int CurlMulti::onSocket(CURL*, curl_socket_t socket, int what, void* self, void*)
{
    auto* multi = static_cast<CurlMulti*>(self);
    Watch& watch = multi->m_watched[socket];
    const bool removed = what == CURL_POLL_REMOVE;
    multi->follow(&watch.read, socket, !removed && (what & CURL_POLL_IN), CURL_CSELECT_IN);
    multi->follow(&watch.write, socket, !removed && (what & CURL_POLL_OUT), CURL_CSELECT_OUT);
    if (removed)
        multi->m_watched.erase(socket);
    return 0;
}

int CurlMulti::onTimer(CURLM*, long milliseconds, void* self)
{
    auto* multi = static_cast<CurlMulti*>(self);
    if (milliseconds < 0 || !QAbstractEventDispatcher::instance()) // None any more when the application ends.
        multi->m_timer.stop();
    else
        multi->m_timer.start(static_cast<int>(milliseconds));
    return 0;
}

void CurlMulti::follow(std::unique_ptr<QSocketNotifier>* notifier, curl_socket_t socket, bool wanted, int event)
{
    if (wanted == bool(*notifier))
        return;
    if (!wanted) {
        // libcurl may give the socket up from inside the notifier's own signal.
        (*notifier)->setEnabled(false);
        notifier->release()->deleteLater();
        return;
    }
    const auto type = event == CURL_CSELECT_IN ? QSocketNotifier::Read : QSocketNotifier::Write;
    *notifier = std::make_unique<QSocketNotifier>(socket, type);
    connect(notifier->get(), &QSocketNotifier::activated, this, [this, socket, event] { proceed(socket, event); });
}

void CurlMulti::proceed(curl_socket_t socket, int event)
{
    int unused = 0;
    curl_multi_socket_action(m_multi, socket, event, &unused);
    while (const CURLMsg* message = curl_multi_info_read(m_multi, &unused)) {
        CURL* transfer = message->easy_handle;
        const CURLcode result = message->data.result; // The message goes with the transfer.
        const Done done = m_transfers.take(transfer);
        curl_multi_remove_handle(m_multi, transfer);
        done(result);
    }
}
