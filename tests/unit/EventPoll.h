#pragma once

#include <QVariantHash>

#include <memory>

#include "CMEventQueue.h"
#include "CMRoot.h"
#include "CMUINode.h"

/// What became of one poll, from the client's side.
struct Answer {
    bool done = false;
    int calls = 0;
    ZarkList<ZarkEvent> events;
};

class Request : public CMEventQueueRequest {
public:
    Request(const std::shared_ptr<Answer>& answer, bool settles) : m_answer(answer), m_settles(settles) { }

    void done(const QUuid&, const ZarkList<ZarkEvent>& events) override
    {
        m_answer->done = true;
        ++m_answer->calls;
        m_answer->events = events;
    }
    bool mayRead(const CMPath& path) const override
    {
        const CMUINode* node = CMRoot()->tree()->node(path);
        return !node || node->permission() != ZarkPermission::Internal;
    }
    bool settles() const override { return m_settles; }

private:
    std::shared_ptr<Answer> m_answer;
    bool m_settles;
};

struct Poll {
    std::shared_ptr<Answer> answer = std::make_shared<Answer>();
    quint64 token = 0;
};

enum Settling { AtOnce, Settles };

inline Poll poll(
    CMEventQueue* queue, int timeout, Settling settling = AtOnce, qint64 received = CMEventQueue::NotCounted)
{
    Poll poll;
    poll.token = queue->poll(new Request(poll.answer, settling == Settles), timeout, received);
    return poll;
}

inline ZarkEventSubscribe subscription(const CMPath& path, const char* type = "item")
{
    return ZarkEventSubscribe(
        QVariantHash{ { QStringLiteral("path"), path.toEncoded() }, { QStringLiteral("type"), QLatin1String(type) } });
}
