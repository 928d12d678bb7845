#pragma once

#include <QString>

#include "CMEventQueue.h"
#include "ZarkEvent.h"
#include "ZarkList.h"

class RequestParameters;

/// What a request of the event API asks for.
struct EventSubscribeData {
    static constexpr int NoTimeout = -1;

    QString queueId; ///< Empty: a new queue.
    ZarkList<ZarkEventSubscribe> subscribe;
    ZarkList<ZarkEventSubscribe> unsubscribe;
    int timeout = NoTimeout; ///< Seconds.
    qint64 received = CMEventQueue::NotCounted; ///< Answers with events that the client has received.
};

/// Read the parameters into `data`. All are optional; false when one is there that cannot be read: a list that is not
/// JSON or no list, a number that is no integer. Then what `data` holds is undefined. In a query or a form the lists
/// are JSON texts.
bool parseSubscribeData(const RequestParameters& parameters, EventSubscribeData* data);
