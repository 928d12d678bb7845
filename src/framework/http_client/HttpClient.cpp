#include "HttpClient.h"

#include <QPointer>

#include "HttpFetch.h"

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
