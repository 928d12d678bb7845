#pragma once

#include <QObject>

/// The readers of the demo's audio stream. Each has a pipe that is filled from the event loop whenever it has room, and
/// ends when its reader closes (SIGPIPE must be ignored) or with this object.
class ToneStreams : public QObject {
public:
    explicit ToneStreams(QObject* parent = nullptr) : QObject(parent) { }

    /// The reading end, non-blocking and close-on-exec, which the caller closes; -1 when there is no descriptor left or
    /// too many read already.
    int open();
    int count() const { return children().size(); }
};
