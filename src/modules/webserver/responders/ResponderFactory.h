#pragma once

#include <QObject>

#include <functional>

#include "Request.h"
#include "Responder.h"

/// Makes a responder for a request, as its child: it dies with the request at the latest.
class ResponderFactory {
public:
    virtual Responder* create(Request& request, const QString& documentRoot) = 0;
    virtual ~ResponderFactory() = default;
};

/// Makes a T from (Request&, documentRoot, args..., parent). The arguments are kept by value.
template <class T, class... Args> class DefaultResponderFactory : public ResponderFactory {
public:
    explicit DefaultResponderFactory(Args... args)
        : m_create([args...](Request& request, const QString& documentRoot) {
              return new T(request, documentRoot, args..., &request);
          })
    {
    }

    Responder* create(Request& request, const QString& documentRoot) override
    {
        return m_create(request, documentRoot);
    }

private:
    std::function<Responder*(Request&, const QString&)> m_create;
};

template <class T, class... Args> ResponderFactory* makeDefaultResponderFactory(Args... args)
{
    return new DefaultResponderFactory<T, Args...>(args...);
}
