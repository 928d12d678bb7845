#include "EventRewriting.h"

#include "LegacyPathHelper.h"

namespace {

ZarkList<ZarkRowEvent> withoutMoves(const ZarkList<ZarkRowEvent>& events)
{
    ZarkList<ZarkRowEvent> result;
    for (const ZarkRowEvent& event : events) {
        if (event.type() != ZarkRowEventType::Moved) {
            result.append(event);
            continue;
        }
        ZarkRowEvent removal = event;
        removal.setType(ZarkRowEventType::Removed);
        ZarkRowEvent insertion = event;
        insertion.setType(ZarkRowEventType::Inserted);
        insertion.setIndex(event.toIndex());
        result.append(removal);
        result.append(insertion);
    }
    return result;
}

} // namespace

bool addCurrentPaths(ZarkList<ZarkEventSubscribe>* subscriptions)
{
    const int count = subscriptions->count();
    for (int i = 0; i < count; ++i) {
        ZarkEventSubscribe subscription = subscriptions->at(i);
        if (!LegacyPathHelper::isLegacy(subscription.path()))
            continue;
        subscription.setPath(LegacyPathHelper::fromLegacy(subscription.path()));
        subscriptions->append(subscription);
    }
    return subscriptions->count() > count;
}

void addLegacyPaths(ZarkList<ZarkEvent>* events)
{
    const int count = events->count();
    for (int i = 0; i < count; ++i) {
        ZarkEvent event = events->at(i);
        if (!LegacyPathHelper::wasLegacy(event.path()))
            continue;
        event.setPath(LegacyPathHelper::toLegacy(event.path()));
        events->append(event);
    }
}

void splitMoves(ZarkList<ZarkEvent>* events)
{
    for (ZarkEvent& event : *events)
        event.setRowsEvents(withoutMoves(event.rowsEvents()));
}
