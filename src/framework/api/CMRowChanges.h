#pragma once

#include <QVector>

#include "ZarkList.h"
#include "ZarkRowEvent.h"

/// The row events of one list that a client has not seen, in order and bounded: either a reset alone, after which the
/// client reads the whole list anyway, or at most Maximum other events.
class CMRowChanges {
public:
    static constexpr int Maximum = 1000;

    bool isEmpty() const { return m_events.isEmpty(); }
    bool isReset() const;
    int count() const { return m_events.count(); }
    ZarkList<ZarkRowEvent> events() const;

    /// Adds the newest event. An update of a row that one of the latest events updates already says nothing new: only
    /// that event's version becomes the newer one, so that whoever read the row in between reads it again.
    void append(const ZarkRowEvent& event);
    /// Puts events back in front of these, which followed them.
    void prepend(const CMRowChanges& older);
    void reset();
    void clear() { m_events = {}; }

private:
    bool mergeUpdate(const ZarkRowEvent& update);

    QVector<ZarkRowEvent> m_events;
};
