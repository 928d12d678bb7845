#pragma once

#include <QBasicTimer>
#include <QObject>

/// Gives the memory of ended polls back to the system. Each of them held a block of 16 KiB of the library's and a
/// hundred small ones; when many end at once, the heap is left in pieces that the C library keeps, and a thousand
/// clients cost a fifth more after their hundredth answer than before their first.
///
/// The heap is trimmed when many have ended, as soon as that, so that the polls that follow find clean pages, and once
/// more when no more end. It takes about 1 us for each poll.
class HeapTrim : public QObject {
public:
    void pollEnded();

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    QBasicTimer m_timer; ///< Runs while polls end.
    int m_ended = 0; ///< Since the heap was trimmed.
    int m_endedAtLook = 0;
    bool m_trimsOnceQuiet = false;
};
