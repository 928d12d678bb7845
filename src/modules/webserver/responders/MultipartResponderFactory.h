#pragma once

#include <functional>

#include "MultipartResponder.h"
#include "Request.h"

/// Makes responders for the multipart requests that it wants; the others are not its business.
class MultipartResponderFactory {
public:
    virtual bool wants(const Message& message) const = 0;
    /// The responder dies with the request at the latest.
    virtual MultipartResponder* create(Request& request, const QString& documentRoot) = 0;
    virtual ~MultipartResponderFactory() = default;
};

/// Makes a T from (Request&, documentRoot, args..., parent) for what T::wants(). The arguments are kept by value.
template <class T, class... Args> class DefaultMultipartResponderFactory : public MultipartResponderFactory {
public:
    explicit DefaultMultipartResponderFactory(Args... args)
        : m_create([args...](Request& request, const QString& documentRoot) {
              return new T(request, documentRoot, args..., nullptr);
          })
    {
    }

    bool wants(const Message& message) const override { return T::wants(message); }
    MultipartResponder* create(Request& request, const QString& documentRoot) override
    {
        MultipartResponder* responder = m_create(request, documentRoot);
        QObject::connect(&request, &QObject::destroyed, responder, [responder] { delete responder; });
        return responder;
    }

private:
    std::function<MultipartResponder*(Request&, const QString&)> m_create;
};
