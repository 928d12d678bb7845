#pragma once

#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>
#include <utility>

#include "CMError.h"
#include "CMReplyDelivery.h"

/// The answer to an asynchronous request, as the asker and the answerer both hold it (copies share one answer).
///
/// The asker calls onFinished() once; the answerer calls finish() or fail() once (later calls are ignored). The
/// callback runs from the event loop, never inside any of these calls, and not at all once the receiver is gone. If
/// every copy is dropped without an answer, the callback gets the error CMError::Abandoned, so that no request is
/// forgotten. All on one thread.
template <class T> class CMReply {
public:
    using Callback = std::function<void(const T& value, const CMError& error)>;

    CMReply() : m_state(std::make_shared<State>()) { }

    void onFinished(QObject* receiver, Callback callback)
    {
        m_state->receiver = receiver;
        m_state->callback = std::move(callback);
        if (m_state->finished)
            m_state->deliver();
    }
    void finish(const T& value)
    {
        if (isFinished())
            return;
        m_state->value = value;
        m_state->complete();
    }
    void fail(const CMError& error)
    {
        if (isFinished())
            return;
        m_state->error = error;
        m_state->complete();
    }
    bool isFinished() const { return m_state->finished; }

private:
    struct State {
        QPointer<QObject> receiver;
        Callback callback;
        T value{};
        CMError error;
        bool finished = false;

        ~State()
        {
            if (finished)
                return;
            error = CMError(CMError::Abandoned, "The request was dropped without an answer.");
            complete();
        }
        void complete()
        {
            finished = true;
            if (callback)
                deliver();
        }
        void deliver()
        {
            if (!receiver)
                return;
            CMReplyDelivery::post(
                receiver, [run = std::exchange(callback, {}), answer = std::move(value), failure = std::move(error)] {
                    run(answer, failure);
                });
        }
    };

    std::shared_ptr<State> m_state;
};

/// The answer to a request that returns nothing.
class CMVoidReply {
public:
    using Callback = std::function<void(const CMError& error)>;

    void onFinished(QObject* receiver, Callback callback)
    {
        m_reply.onFinished(receiver, [run = std::move(callback)](const Nothing&, const CMError& error) { run(error); });
    }
    void finish() { m_reply.finish({}); }
    void fail(const CMError& error) { m_reply.fail(error); }
    bool isFinished() const { return m_reply.isFinished(); }

private:
    struct Nothing { };
    CMReply<Nothing> m_reply;
};
