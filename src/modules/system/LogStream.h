#pragma once

#include <QByteArray>

#include <deque>
#include <vector>

#include <log4cplus/appender.h>

/// What the log says, at level info and above, to everybody who reads along: first the last lines, then each new one.
///
/// Nobody is waited for: a reader that is slow misses lines, and is told how many. What is logged while a line is on
/// its way to a reader is below info, so that reading the log makes no log. Any thread.
class LogStream : public log4cplus::Appender {
public:
    LogStream();
    ~LogStream() override;

    /// Hooks `stream` up to all loggers; to be called again when the log was configured anew, which closed it: whoever
    /// read along has come to the end then.
    static void attach(const log4cplus::SharedAppenderPtr& stream);
    static void detach(const log4cplus::SharedAppenderPtr& stream);

    /// The reading end, non-blocking and close-on-exec, which the caller closes; -1 when there are too many readers.
    int open();
    void close() override;

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override;

private:
    void reopen();

    struct Reader {
        int writeEnd;
        int lost;
    };

    void dropGone();
    static bool deliver(Reader* reader, const QByteArray& line);

    // Guarded by access_mutex, which the base holds while it calls append().
    std::deque<QByteArray> m_recent;
    std::vector<Reader> m_readers;
};
