#include "Message.h"

#include <QMetaMethod>

#include <algorithm>
#include <cstring>

#include "WebserverLog.h"

namespace {

constexpr const char* TakerKey = "zark-taker";

GInetAddress* remoteInetAddress(SoupClientContext* client)
{
    GSocketAddress* address = client ? soup_client_context_get_remote_address(client) : nullptr;
    if (!address || !G_IS_INET_SOCKET_ADDRESS(address))
        return nullptr;
    return g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(address));
}

QString uriToString(SoupMessage* message)
{
    SoupURI* uri = soup_message_get_uri(message);
    if (!uri)
        return {};
    char* text = soup_uri_to_string(uri, FALSE);
    const QString result = QString::fromUtf8(text);
    g_free(text);
    return result;
}

// The library takes an answer without a body for one that ends with the connection, and closes it.
void keepAliveAfterNoContent(SoupMessage* message, gpointer)
{
    soup_message_headers_set_encoding(message->response_headers, SOUP_ENCODING_CONTENT_LENGTH);
}

bool isTokenCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
        || (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c));
}

bool isToken(const QByteArray& name)
{
    return !name.isEmpty() && std::all_of(name.cbegin(), name.cend(), isTokenCharacter);
}

// Such a text would end its line, and begin a field of its own.
bool hasLineBreak(const QByteArray& text)
{
    return text.contains('\r') || text.contains('\n') || text.contains('\0');
}

// Most fields are new, which costs less to find out than the library's way to replace them.
void setField(SoupMessageHeaders* fields, const char* name, const char* value)
{
    if (soup_message_headers_get_one(fields, name))
        soup_message_headers_replace(fields, name, value);
    else
        soup_message_headers_append(fields, name, value);
}

// "100 Continue" took with it what the guard had set.
void markForRobots(SoupMessage* message)
{
    if (soup_message_headers_get_expectations(message->request_headers) & SOUP_EXPECTATION_CONTINUE)
        setField(message->response_headers, "X-Robots-Tag", "noindex");
}

void deleteByteArray(gpointer array)
{
    delete static_cast<QByteArray*>(array);
}

} // namespace

Message::Message(const MessageData& data, QObject* parent) : QObject(parent), m_data(data)
{
    dbglog_trace(webserverLog(), "Message for '" << fullUri() << "' from " << sender());
    soup_message_body_set_accumulate(m_data.message->response_body, FALSE);
    markForRobots(m_data.message);
    // The library gives the table up when its callback returns, and most answers come later.
    if (m_data.query)
        g_hash_table_ref(m_data.query);
    connectGlibSignals();
}

Message::Message(const Message& other)
    : QObject(nullptr), m_data(other.m_data), m_valid(other.m_valid), m_finished(other.m_finished),
      m_fullUri(other.fullUri()), m_url(other.m_url)
{
    if (m_data.query)
        g_hash_table_ref(m_data.query);
    if (m_valid)
        connectGlibSignals();
}

Message::~Message()
{
    if (m_valid && takerOf(m_data.message) == this)
        g_object_set_data(G_OBJECT(m_data.message), TakerKey, nullptr);
    disconnectGlibSignals();
    if (m_data.query)
        g_hash_table_unref(m_data.query);
}

int Message::status() const
{
    dbglog_scopedFunction(webserverLog());
    return m_valid ? static_cast<int>(m_data.message->status_code) : 0;
}

void Message::setStatus(int code, const QString& reason)
{
    dbglog_scopedFunction(webserverLog());
    if (!isWritable())
        return;
    if (code < 200 || code > 599) {
        dbglog_error(webserverLog(), "setStatus: " << code << " is no final status, answering 500");
        code = SOUP_STATUS_INTERNAL_SERVER_ERROR;
    }
    if (code == SOUP_STATUS_NO_CONTENT)
        g_signal_connect(m_data.message, "wrote-headers", G_CALLBACK(keepAliveAfterNoContent), nullptr);
    const QByteArray phrase = reason.toUtf8();
    if (phrase.isEmpty() || hasLineBreak(phrase)) {
        dbglog_debug(webserverLog(), "setStatus: setting status " << code);
        soup_message_set_status(m_data.message, static_cast<guint>(code));
    } else {
        dbglog_debug(webserverLog(), "setStatus: setting status with reason msg " << code << reason);
        soup_message_set_status_full(m_data.message, static_cast<guint>(code), phrase.constData());
    }
}

bool Message::setHeader(const QByteArray& name, const QByteArray& value)
{
    dbglog_scopedFunction(webserverLog());
    if (!isToken(name) || hasLineBreak(value))
        return false;
    if (isWritable())
        setField(m_data.message->response_headers, name.constData(), value.constData());
    return true;
}

bool Message::setHeader(const QString& name, const QString& value)
{
    dbglog_scopedFunction(webserverLog());
    return setHeader(name.toUtf8(), value.toUtf8());
}

void Message::setContentType(const QString& contentType)
{
    dbglog_scopedFunction(webserverLog());
    setHeader(QByteArrayLiteral("Content-Type"), contentType.toUtf8());
}

void Message::setContentLength(qint64 bytes)
{
    dbglog_scopedFunction(webserverLog());
    if (isWritable())
        soup_message_headers_set_content_length(m_data.message->response_headers, bytes);
}

bool Message::setNoCache()
{
    dbglog_scopedFunction(webserverLog());
    const bool cacheControl =
        setHeader(QByteArrayLiteral("Cache-Control"), QByteArrayLiteral("no-cache, no-store, must-revalidate"));
    const bool pragma = setHeader(QByteArrayLiteral("Pragma"), QByteArrayLiteral("no-cache"));
    const bool expires = setHeader(QByteArrayLiteral("Expires"), QByteArrayLiteral("0"));
    return cacheControl && pragma && expires;
}

void Message::setEncoding(Encoding encoding)
{
    dbglog_scopedFunction(webserverLog());
    if (!isWritable())
        return;
    SoupEncoding soupEncoding = SOUP_ENCODING_CONTENT_LENGTH;
    if (encoding == Streamed) {
        const SoupHTTPVersion version = soup_message_get_http_version(m_data.message);
        if (version == SOUP_HTTP_1_1)
            soupEncoding = SOUP_ENCODING_CHUNKED;
        else if (version == SOUP_HTTP_1_0)
            soupEncoding = SOUP_ENCODING_EOF;
    }
    SoupMessageHeaders* fields = m_data.message->response_headers;
    if (soup_message_headers_get_encoding(fields) != soupEncoding)
        soup_message_headers_set_encoding(fields, soupEncoding);
}

void Message::responseBodyAdd(const char* data, qint64 length)
{
    dbglog_scopedFunction(webserverLog());
    if (!isWritable())
        return;
    if (length > 0)
        soup_message_body_append(m_data.message->response_body, SOUP_MEMORY_COPY, data, static_cast<gsize>(length));
    unpause();
}

void Message::responseBodyAdd(const QByteArray& data)
{
    dbglog_scopedFunction(webserverLog());
    if (!isWritable())
        return;
    dbglog_debug(webserverLog(), "data.size: " << data.size() << data.left(20) << "...");
    if (!data.isEmpty()) {
        auto* owner = new QByteArray(data);
        SoupBuffer* buffer =
            soup_buffer_new_with_owner(owner->constData(), static_cast<gsize>(owner->size()), owner, deleteByteArray);
        soup_message_body_append_buffer(m_data.message->response_body, buffer);
        soup_buffer_free(buffer);
    }
    unpause();
}

void Message::setResponseBody(const QByteArray& body, const QString& contentType)
{
    dbglog_scopedFunction(webserverLog());
    setContentType(contentType);
    responseBodyAdd(body);
}

void Message::setResponseBody(const QString& body, const QString& contentType)
{
    dbglog_scopedFunction(webserverLog());
    setResponseBody(body.toUtf8(), contentType);
}

void Message::responseBodyComplete()
{
    dbglog_scopedFunction(webserverLog());
    if (!isWritable())
        return;
    soup_message_body_complete(m_data.message->response_body);
    unpause();
}

void Message::pause()
{
    dbglog_scopedFunction(webserverLog());
    if (isWritable())
        soup_server_pause_message(m_data.server, m_data.message);
}

void Message::unpause()
{
    dbglog_scopedFunction(webserverLog());
    if (isWritable())
        soup_server_unpause_message(m_data.server, m_data.message);
}

bool Message::isMethod(const char* method) const
{
    dbglog_scopedFunction(webserverLog());
    return m_valid && std::strcmp(m_data.message->method, method) == 0;
}

void Message::take()
{
    dbglog_scopedFunction(webserverLog());
    if (m_valid)
        g_object_set_data(G_OBJECT(m_data.message), TakerKey, this);
}

Message* Message::takerOf(SoupMessage* message)
{
    return static_cast<Message*>(g_object_get_data(G_OBJECT(message), TakerKey));
}

void Message::setAccumulate(bool accumulate)
{
    dbglog_scopedFunction(webserverLog());
    if (m_valid)
        soup_message_body_set_accumulate(m_data.message->request_body, accumulate);
}

QByteArray Message::requestBody() const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_valid)
        return {};
    SoupMessageBody* body = m_data.message->request_body;
    if (!body->data) {
        if (!soup_message_body_get_accumulate(body))
            return {};
        soup_buffer_free(soup_message_body_flatten(body));
    }
    return QByteArray::fromRawData(body->data, static_cast<int>(body->length));
}

QByteArray Message::requestContentType() const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_valid)
        return {};
    // Not the library's parser of this field: it is strict about parameters, and drops the type with them.
    const char* field = soup_message_headers_get_one(m_data.message->request_headers, "Content-Type");
    const QByteArray value(field);
    const int end = value.indexOf(';');
    return (end < 0 ? value : value.left(end)).trimmed();
}

bool Message::isMultipart() const
{
    dbglog_scopedFunction(webserverLog());
    return requestContentType() == "multipart/form-data";
}

QByteArray Message::header(const char* name) const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_valid)
        return {};
    return QByteArray(soup_message_headers_get_list(m_data.message->request_headers, name));
}

bool Message::isRepeated(const char* name) const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_valid)
        return false;
    // The library joins several, and hands a single one out as it is.
    SoupMessageHeaders* fields = m_data.message->request_headers;
    return soup_message_headers_get_list(fields, name) != soup_message_headers_get_one(fields, name);
}

QString Message::sender() const
{
    dbglog_scopedFunction(webserverLog());
    GInetAddress* address = m_valid ? remoteInetAddress(m_data.client) : nullptr;
    if (!address)
        return {};
    char* text = g_inet_address_to_string(address);
    const QString result = QString::fromLatin1(text);
    g_free(text);
    return result;
}

bool Message::isFromLocalhost() const
{
    dbglog_scopedFunction(webserverLog());
    GInetAddress* address = m_valid ? remoteInetAddress(m_data.client) : nullptr;
    return address && g_inet_address_get_is_loopback(address);
}

bool Message::isHttps() const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_valid)
        return false;
    // Schemes are interned by the library, SOUP_URI_SCHEME_HTTPS included.
    return soup_message_get_uri(m_data.message)->scheme == SOUP_URI_SCHEME_HTTPS;
}

const QString& Message::fullUri() const
{
    dbglog_scopedFunction(webserverLog());
    if (m_fullUri.isNull() && m_valid)
        m_fullUri = uriToString(m_data.message);
    return m_fullUri;
}

const QueryItems& Message::query() const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_querySplit && m_valid) {
        m_query = QueryItems(QLatin1String(soup_uri_get_query(soup_message_get_uri(m_data.message))));
        m_querySplit = true;
    }
    return m_query;
}

ZarkUrl Message::url() const
{
    dbglog_scopedFunction(webserverLog());
    if (m_url.isEmpty()) {
        m_url = ZarkUrl::fromEncoded(fullUri().toUtf8());
        QByteArray query = m_url.encodedQuery();
        if (query.contains('+'))
            m_url.setEncodedQuery(query.replace('+', "%20"));
    }
    return m_url;
}

void Message::releaseInput()
{
    dbglog_scopedFunction(webserverLog());
    m_url = ZarkUrl();
    m_query = QueryItems();
    m_querySplit = false;
    if (m_valid)
        soup_message_body_truncate(m_data.message->request_body);
}

QByteArray Message::getDelimiterFromHeader() const
{
    dbglog_scopedFunction(webserverLog());
    const QByteArray contentType = header(QStringLiteral("Content-type"));
    const int type = contentType.indexOf("multipart/form-data");
    if (type < 0)
        return {};
    const QByteArray key = QByteArrayLiteral("boundary=");
    const int boundary = contentType.indexOf(key, type);
    if (boundary < 0)
        return {};
    return "\r\n--" + contentType.mid(boundary + key.size());
}

void Message::connectNotify(const QMetaMethod& signal)
{
    static const QMetaMethod gotChunkSignal = QMetaMethod::fromSignal(&Message::gotChunk);
    static const QMetaMethod wroteChunkSignal = QMetaMethod::fromSignal(&Message::wroteChunk);
    if (!m_valid)
        return;
    if (signal == gotChunkSignal && !m_gotChunkId)
        m_gotChunkId = g_signal_connect(m_data.message, "got_chunk", G_CALLBACK(msg_got_chunk_cb), this);
    else if (signal == wroteChunkSignal && !m_wroteChunkId)
        m_wroteChunkId = g_signal_connect(m_data.message, "wrote-chunk", G_CALLBACK(msg_wrote_chunk_cb), this);
}

void Message::connectGlibSignals()
{
    // By number: the name would be looked up for each exchange.
    static const guint finishedSignal = g_signal_lookup("finished", SOUP_TYPE_MESSAGE);
    GClosure* closure = g_cclosure_new(G_CALLBACK(msg_finished_cb), this, nullptr);
    m_finishedId = g_signal_connect_closure_by_id(m_data.message, finishedSignal, 0, closure, FALSE);
}

void Message::disconnectGlibSignals()
{
    if (!m_valid)
        return;
    for (const gulong id : { m_gotChunkId, m_wroteChunkId, m_finishedId }) {
        if (id)
            g_signal_handler_disconnect(m_data.message, id);
    }
}

void Message::msg_got_chunk_cb(SoupMessage*, SoupBuffer* chunk, gpointer self)
{
    Q_EMIT static_cast<Message*>(self)->gotChunk(chunk->data, static_cast<unsigned int>(chunk->length));
}

void Message::msg_wrote_chunk_cb(SoupMessage*, gpointer self)
{
    Q_EMIT static_cast<Message*>(self)->wroteChunk();
}

void Message::msg_finished_cb(SoupMessage*, gpointer self)
{
    auto* message = static_cast<Message*>(self);
    message->m_finished = true;
    if (message->m_end)
        message->m_end();
    Q_EMIT message->finished();
    message->disconnectGlibSignals();
    message->m_valid = false;
    // After what its listeners put off themselves: that may still need it.
    if (message->m_deletedWhenFinished)
        message->deleteLater();
}
