#include "HttpFetch.h"

#include <QCoreApplication>
#include <QHostInfo>
#include <QNetworkProxy>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QThread>

#include <utility>

namespace {

/// What a socket holds of a body before it is read; the rest waits at the sender.
constexpr int ReadBuffer = 64 * 1024;

QObject* owner()
{
    QCoreApplication* application = QCoreApplication::instance();
    return application && application->thread() == QThread::currentThread() ? application : nullptr;
}

} // namespace

HttpFetch::HttpFetch(const QUrl& url, const HttpClientOptions& options, const HttpClient::Callback& callback)
    : QObject(owner()), m_url(url), m_options(options), m_callback(callback), m_parser(options.readSizeLimit())
{
    m_deadline.setSingleShot(true);
    m_attempt.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, [this] { fail(HttpClientResult::TimedOut); });
    connect(&m_attempt, &QTimer::timeout, this, &HttpFetch::connectNext);
    m_deadline.start(qMax(0, options.timeoutMs()));
    QMetaObject::invokeMethod(this, &HttpFetch::start, Qt::QueuedConnection);
}

HttpFetch::~HttpFetch()
{
    release();
}

void HttpFetch::cancel()
{
    release();
    deleteLater();
}

void HttpFetch::start()
{
    if (!m_callback)
        return;
    const bool known = m_url.scheme() == QLatin1String("http") || isSecure();
    if (!known || !m_url.isValid() || m_url.host().isEmpty())
        return fail(HttpClientResult::Refused);
    const QHostAddress literal(m_url.host());
    if (literal.isNull()) {
        m_lookup = QHostInfo::lookupHost(m_url.host(), this, &HttpFetch::onLookedUp);
        return;
    }
    m_candidates.append(literal);
    connectNext();
}

void HttpFetch::onLookedUp(const QHostInfo& info)
{
    m_lookup = -1;
    if (!m_callback)
        return;
    m_candidates = info.addresses();
    if (m_candidates.isEmpty())
        return fail(HttpClientResult::Unreachable);
    m_attemptMs = m_options.timeoutMs() / m_candidates.size();
    connectNext();
}

void HttpFetch::connectNext()
{
    dropSocket();
    while (!m_candidates.isEmpty()) {
        const QHostAddress address = m_candidates.takeFirst();
        const HttpClientOptions::AddressFilter filter = m_options.addressFilter();
        const bool accepted = !filter || filter(address);
        if (!m_callback)
            return; // The filter has cancelled the fetch.
        if (!accepted)
            continue;
        m_tried = true;
        if (!m_candidates.isEmpty())
            m_attempt.start(m_attemptMs);
        m_socket = makeSocket();
        m_socket->connectToHost(address, quint16(m_url.port(isSecure() ? 443 : 80)));
        return;
    }
    fail(m_tried ? HttpClientResult::Unreachable : HttpClientResult::Refused);
}

bool HttpFetch::isSecure() const
{
    return m_url.scheme() == QLatin1String("https");
}

QTcpSocket* HttpFetch::makeSocket()
{
    QTcpSocket* socket = isSecure() ? new QSslSocket(this) : new QTcpSocket(this);
    socket->setProxy(QNetworkProxy::NoProxy);
    socket->setReadBufferSize(ReadBuffer);
    connect(socket, &QTcpSocket::connected, this, &HttpFetch::onConnected);
    connect(socket, &QTcpSocket::readyRead, this, &HttpFetch::onReadyRead);
    // Queued: a connection can fail while connectToHost() still runs.
    connect(socket, &QTcpSocket::errorOccurred, this, &HttpFetch::onFailed, Qt::QueuedConnection);
    return socket;
}

void HttpFetch::onConnected()
{
    m_attempt.stop();
    QSslSocket* secure = qobject_cast<QSslSocket*>(m_socket);
    if (!secure)
        return sendRequest();
    QSslConfiguration configuration = secure->sslConfiguration();
    configuration.setProtocol(QSsl::TlsV1_2OrLater);
    secure->setSslConfiguration(configuration);
    // The socket was given an address; the certificate has to be the name's.
    secure->setPeerVerifyName(m_url.host(QUrl::FullyEncoded));
    connect(secure, &QSslSocket::encrypted, this, &HttpFetch::sendRequest);
    secure->startClientEncryption();
}

void HttpFetch::sendRequest()
{
    m_sent = true;
    m_socket->write(request());
}

QByteArray HttpFetch::request() const
{
    // User name, password and fragment stay behind. What goes in is encoded, hence without line ends.
    const QByteArray path = m_url.path(QUrl::FullyEncoded).toLatin1();
    QByteArray target = path.isEmpty() ? QByteArrayLiteral("/") : path;
    if (m_url.hasQuery())
        target += '?' + m_url.query(QUrl::FullyEncoded).toLatin1();
    QByteArray host = m_url.host(QUrl::FullyEncoded).toLatin1();
    if (host.contains(':'))
        host = '[' + host.left(host.indexOf('%')) + ']'; // A zone means nothing to the other side.
    if (m_url.port() >= 0)
        host += ':' + QByteArray::number(m_url.port());
    // No compression: a body is what it is in size, and is not unpacked here.
    return "GET " + target + " HTTP/1.1\r\nHost: " + host
        + "\r\nAccept: */*\r\nAccept-Encoding: identity\r\nConnection: close\r\n\r\n";
}

void HttpFetch::onReadyRead()
{
    char buffer[ReadBuffer];
    while (m_socket && m_sent) {
        const qint64 size = m_socket->read(buffer, sizeof buffer);
        if (size <= 0 || finishIf(m_parser.feed(buffer, int(size))))
            return;
    }
}

/// No connection, or the end of one, be it the peer's orderly close.
void HttpFetch::onFailed()
{
    if (!m_socket || sender() != m_socket)
        return;
    const bool closed = m_socket->error() == QAbstractSocket::RemoteHostClosedError;
    if (!m_sent)
        return connectNext();
    onReadyRead();
    if (m_callback && !(closed && finishIf(m_parser.end())))
        fail(HttpClientResult::Unreachable);
}

bool HttpFetch::finishIf(HttpResponseParser::State state)
{
    switch (state) {
    case HttpResponseParser::Incomplete:
        return false;
    case HttpResponseParser::Complete:
        finish(m_parser.result());
        return true;
    case HttpResponseParser::TooLarge:
        fail(HttpClientResult::TooLarge);
        return true;
    default:
        fail(HttpClientResult::Unreachable);
        return true;
    }
}

void HttpFetch::fail(HttpClientResult::Failure failure)
{
    HttpClientResult result;
    result.status = failure;
    finish(result);
}

// By value: the parser's own result goes with release().
void HttpFetch::finish(HttpClientResult result)
{
    const HttpClient::Callback callback = std::exchange(m_callback, {});
    release();
    deleteLater();
    if (callback)
        callback(result);
}

/// Stops everything at once; what is left is an empty object that waits for its deletion.
void HttpFetch::release()
{
    m_callback = {};
    m_deadline.stop();
    if (m_lookup >= 0)
        QHostInfo::abortHostLookup(std::exchange(m_lookup, -1));
    dropSocket();
    m_candidates.clear();
    m_parser = HttpResponseParser(0);
}

void HttpFetch::dropSocket()
{
    m_attempt.stop();
    if (!m_socket)
        return;
    QTcpSocket* socket = std::exchange(m_socket, nullptr);
    socket->disconnect(this);
    socket->abort();
    socket->deleteLater(); // This may run inside one of its signals.
}
