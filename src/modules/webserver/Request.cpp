#include "Request.h"

#include "WebserverLog.h"

namespace {

QVariant parseForm(const QByteArray& body)
{
    // The decoder reads a C string, so a form is cut at a NUL, which no encoded form contains.
    const QByteArray text(body.constData(), body.size());
    GHashTable* form = soup_form_decode(text.constData());
    QHash<QString, QVariant> fields;
    GHashTableIter iterator;
    gpointer key = nullptr;
    gpointer value = nullptr;
    g_hash_table_iter_init(&iterator, form);
    while (g_hash_table_iter_next(&iterator, &key, &value))
        fields.insert(
            QString::fromUtf8(static_cast<const char*>(key)), QString::fromUtf8(static_cast<const char*>(value)));
    g_hash_table_destroy(form);
    return fields;
}

void logMalformed(const QByteArray& contentType, const ZarkError& error)
{
    dbglog_error(webserverLog(), "Error on parsing json data during post request. type: " << contentType);
    dbglog_info(webserverLog(), "The request body is no JSON: " << error.toString());
}

} // namespace

QVariant Request::postData() const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_postDataParsed)
        parsePostData();
    return m_postData;
}

void Request::parsePostData() const
{
    dbglog_scopedFunction(webserverLog());
    const QByteArray contentType = requestContentType();
    dbglog_debug(webserverLog(), "Content type " << contentType);
    m_postDataParsed = true;
    m_postData = QVariant();
    if (contentType == "application/x-www-form-urlencoded") {
        if (requestBody().count('&') < m_maximumValues)
            m_postData = parseForm(requestBody());
        else
            dbglog_warn(webserverLog(), "A form of more than " << m_maximumValues << " fields");
    } else if (contentType == "application/json") {
        const QByteArray body = requestBody();
        if (body.isEmpty())
            return;
        // From the bytes: converting to text first would turn invalid UTF-8 into something that parses.
        ZarkError error;
        const QVariant value = ZarkJson::parse(body, &error, 0, m_maximumValues);
        if (error.isEmpty())
            m_postData = value;
        else
            logMalformed(contentType, error);
    } else {
        dbglog_error(webserverLog(), "Unsuported content type: " << contentType);
    }
}

void Request::releaseInput()
{
    dbglog_scopedFunction(webserverLog());
    m_postData = QVariant();
    Message::releaseInput();
}

QHash<QString, QString> Request::serverData() const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_serverDataParsed)
        parseServerData();
    return m_serverData;
}

QString Request::serverData(const QString& key) const
{
    dbglog_scopedFunction(webserverLog());
    if (!m_serverDataParsed)
        parseServerData();
    return m_serverData[key];
}

void Request::parseServerData() const
{
    dbglog_scopedFunction(webserverLog());
    m_serverData.clear();
    m_serverDataParsed = true;
    const ZarkUrl requestUrl = url();
    m_serverData[QStringLiteral("REQUEST_URI")] = QString::fromUtf8(requestUrl.toEncoded());
    m_serverData[QStringLiteral("QUERY_STRING")] = QString::fromUtf8(requestUrl.encodedQuery());
    if (!isValid())
        return;
    m_serverData[QStringLiteral("REMOTE_ADDR")] = QString::fromUtf8(soup_client_context_get_host(data().client));
    GSocketAddress* address = soup_client_context_get_remote_address(data().client);
    const int port = address && G_IS_INET_SOCKET_ADDRESS(address)
        ? g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(address))
        : 0;
    m_serverData[QStringLiteral("REMOTE_PORT")] = QString::number(port);
}
