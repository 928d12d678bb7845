#include "HttpClient.h"

#include <QPointer>

#include "HttpFetch.h"

QByteArray HttpClientHeaders::value(const QByteArray& name, const QByteArray& defaultValue) const
{
    for (const auto& field : m_fields) {
        if (qstricmp(field.first.constData(), name.constData()) == 0)
            return field.second;
    }
    return defaultValue;
}

HttpClient::Handle HttpClient::get(const ZarkUrl& url, const HttpClientOptions& options, const Callback& callback)
{
    QPointer<HttpFetch> fetch = new HttpFetch(url, options, callback);
    Handle handle;
    handle.cancel = [fetch] {
        if (fetch)
            fetch->cancel();
    };
    return handle;
}
