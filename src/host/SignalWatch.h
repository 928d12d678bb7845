#pragma once

#include <QObject>

class QSocketNotifier;

/// Turns the process's signals into Qt signals of the event loop: SIGTERM and SIGINT, SIGHUP. SIGPIPE is ignored.
/// A second SIGTERM or SIGINT ends the process at once with 128 + its number, whatever the event loop is doing.
/// One at a time in a process.
class SignalWatch : public QObject {
    Q_OBJECT
public:
    SignalWatch();
    ~SignalWatch() override;

Q_SIGNALS:
    void stopRequested();
    void reloadRequested();

private:
    void read();

    int m_readEnd = -1;
    QSocketNotifier* m_notifier = nullptr;
};
