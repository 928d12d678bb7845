#include "HttpFetch.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QThread>
#include <QUrl>

#include <sys/socket.h>

#include "CurlMulti.h"

namespace {

/// Fields of all interim responses, of the response and of its trailer, together.
constexpr size_t MaxHeaderBytes = 64 * 1024;
/// Threads that wait for name servers, one each.
constexpr int MaxLookUps = 32;

int lookUpsUnderWay = 0;

QObject* owner()
{
    QCoreApplication* application = QCoreApplication::instance();
    return application && application->thread() == QThread::currentThread() ? application : nullptr;
}

const curl_slist* requestFields()
{
    // No compression: a body is what it is in size, and is not unpacked here.
    static const curl_slist* fields =
        curl_slist_append(curl_slist_append(nullptr, "Accept-Encoding: identity"), "Connection: close");
    return fields;
}

} // namespace

HttpFetch::HttpFetch(const QUrl& url, const HttpClientOptions& options, const Callback& callback)
    : QObject(owner()), m_options(options), m_callback(callback), m_multi(CurlMulti::shared()),
      m_transfer(curl_easy_init()), m_isAddress(!QHostAddress(url.host()).isNull())
{
    const bool known = url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
    if (known && url.isValid() && !url.host().isEmpty() && configure(url))
        m_multi->add(m_transfer, [this](CURLcode code) { onDone(code); });
    else
        QMetaObject::invokeMethod(
            this, [this] { finish(HttpClientResult::Refused); }, Qt::QueuedConnection);
}

HttpFetch::~HttpFetch()
{
    m_multi->remove(m_transfer);
    curl_easy_cleanup(m_transfer);
    setLookingUp(false);
}

/// False when libcurl cannot do what the safety of a fetch rests on.
bool HttpFetch::configure(const QUrl& url)
{
    CURLcode result = m_transfer ? CURLE_OK : CURLE_FAILED_INIT;
    const auto set = [this, &result](CURLoption option, auto value) {
        if (result == CURLE_OK)
            result = curl_easy_setopt(m_transfer, option, value);
    };
    set(CURLOPT_URL, url.toEncoded(QUrl::RemoveUserInfo | QUrl::RemoveFragment).constData());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_PATH_AS_IS, 1L);
    set(CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    set(CURLOPT_HTTPHEADER, requestFields());
    set(CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
    if (qEnvironmentVariableIsSet("SSL_CERT_FILE"))
        set(CURLOPT_CAINFO, qgetenv("SSL_CERT_FILE").constData());

    // A connection that another fetch left would pass the address filter by.
    set(CURLOPT_FRESH_CONNECT, 1L);
    set(CURLOPT_FORBID_REUSE, 1L);
    set(CURLOPT_PROXY, "");
    set(CURLOPT_OPENSOCKETFUNCTION, openSocket);
    set(CURLOPT_OPENSOCKETDATA, this);

    set(CURLOPT_TIMEOUT_MS, long(qMax(1, m_options.timeoutMs()))); // 0 would be none.
    set(CURLOPT_MAXFILESIZE_LARGE, curl_off_t(m_options.readSizeLimit()));
    set(CURLOPT_HEADERFUNCTION, onHeader);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, onBody);
    set(CURLOPT_WRITEDATA, this);

    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);
    set(CURLOPT_RESOLVER_START_FUNCTION, onLookUp);
    set(CURLOPT_RESOLVER_START_DATA, this);
    return result == CURLE_OK;
}

void HttpFetch::cancel()
{
    m_ended = true;
    if (!m_lookingUp)
        deleteLater(); // Not at once: libcurl may be on the stack.
}

void HttpFetch::setLookingUp(bool lookingUp)
{
    lookUpsUnderWay += int(lookingUp) - int(m_lookingUp);
    m_lookingUp = lookingUp;
}

/// Before a look-up, or what libcurl calls so; an address needs none.
int HttpFetch::onLookUp(void*, void*, void* self)
{
    auto* fetch = static_cast<HttpFetch*>(self);
    if (fetch->m_isAddress)
        return 0;
    if (lookUpsUnderWay >= MaxLookUps)
        return 1;
    fetch->setLookingUp(true);
    return 0;
}

curl_socket_t HttpFetch::openSocket(void* self, curlsocktype, curl_sockaddr* address)
{
    auto* fetch = static_cast<HttpFetch*>(self);
    fetch->setLookingUp(false);
    const HttpClientOptions::AddressFilter& filter = fetch->m_options.addressFilter();
    const bool accepted = !fetch->m_ended && (!filter || filter(QHostAddress(&address->addr)));
    (accepted ? fetch->m_accepted : fetch->m_refused) = true;
    if (!accepted)
        return CURL_SOCKET_BAD;
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

size_t HttpFetch::onHeader(char*, size_t size, size_t count, void* self)
{
    auto* fetch = static_cast<HttpFetch*>(self);
    fetch->m_headerBytes += size * count;
    return fetch->m_headerBytes <= MaxHeaderBytes ? size * count : 0;
}

size_t HttpFetch::onBody(char* data, size_t size, size_t count, void* self)
{
    auto* fetch = static_cast<HttpFetch*>(self);
    const int bytes = int(size * count); // CURL_MAX_WRITE_SIZE at the most.
    const HttpClientOptions::BodyMeter& meter = fetch->m_options.bodyMeter();
    if (bytes > fetch->m_options.readSizeLimit() - fetch->m_result.body.size() || (meter && !meter(bytes))) {
        fetch->m_tooLarge = true;
        return 0;
    }
    fetch->m_result.body.append(data, bytes);
    return size * count;
}

void HttpFetch::onDone(CURLcode code)
{
    setLookingUp(false);
    if (code != CURLE_OK)
        return finish(failureOf(code));
    long status = 0;
    curl_easy_getinfo(m_transfer, CURLINFO_RESPONSE_CODE, &status);
    readHeaders();
    finish(int(status));
}

HttpClientResult::Failure HttpFetch::failureOf(CURLcode code) const
{
    if (code == CURLE_FILESIZE_EXCEEDED || m_tooLarge)
        return HttpClientResult::TooLarge;
    if (code == CURLE_OPERATION_TIMEDOUT)
        return HttpClientResult::TimedOut;
    return m_refused && !m_accepted ? HttpClientResult::Refused : HttpClientResult::Unreachable;
}

void HttpFetch::readHeaders()
{
    const curl_header* field = nullptr;
    constexpr int LastResponse = -1;
    while ((field = curl_easy_nextheader(m_transfer, CURLH_HEADER, LastResponse, const_cast<curl_header*>(field))))
        m_result.headers.append(field->name, field->value);
}

void HttpFetch::finish(int status)
{
    deleteLater();
    if (m_ended)
        return;
    m_ended = true;
    m_result.status = status;
    if (status <= 0)
        m_result.body.clear();
    m_callback(m_result);
}
