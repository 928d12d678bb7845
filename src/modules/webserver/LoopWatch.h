#pragma once

#include <QtGlobal>

#include <glib.h>

#include <array>

/// How long the event loop was ever busy without a look at what had come meanwhile: from the end of one wait to the
/// begin of the next. For two readings of the clock a turn. Of the thread that
/// makes it.
class LoopWatch {
public:
    LoopWatch();
    ~LoopWatch();
    LoopWatch(const LoopWatch&) = delete;
    LoopWatch& operator=(const LoopWatch&) = delete;

    /// The longest turn that ended within the last minute, to five seconds, in microseconds.
    qint64 longestStall() const;

private:
    struct Slot {
        gint64 number = -1; ///< Of so many times five seconds of the monotonic clock.
        gint64 longest = 0;
    };

    static gint wait(GPollFD* descriptors, guint count, gint milliseconds);
    void turned();

    GMainContext* m_context; ///< Null: the main one.
    LoopWatch* m_next; ///< Of the same thread; not owned.
    gint64 m_begin; ///< Of the turn.
    gint64 m_slotEnd = 0; ///< Of the present slot.
    gint64 m_slotLongest = 0;
    std::array<Slot, 12> m_slots;
};
