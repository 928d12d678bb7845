#pragma once

#include <functional>

#include "HttpClientOptions.h"
#include "HttpClientResult.h"
#include "ZarkUrl.h"

/// Fetches resources over HTTP and HTTPS on the application's thread and event loop. Redirects are not followed.
class HttpClient {
public:
    using Callback = std::function<void(const HttpClientResult&)>;

    /// A running fetch; cancel() ends it without a further callback. Copyable; harmless after the end. What the
    /// callback holds is let go from the event loop, as soon as the fetch takes nothing of the machine any more: a name
    /// that is looked up at that moment takes a thread until the name server has answered or the timeout is over.
    class Handle {
    public:
        std::function<void()> cancel = [] {
        };
    };

    /// Calls `callback` exactly once, later, from the event loop, unless the handle is cancelled before.
    static Handle get(const ZarkUrl& url, const HttpClientOptions& options, const Callback& callback);
};
