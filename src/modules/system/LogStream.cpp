#include "LogStream.h"

#include <algorithm>
#include <cerrno>
#include <sstream>

#include <fcntl.h>
#include <limits.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <log4cplus/thread/syncprims-pub-impl.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr size_t MaximumReaders = 32;
constexpr size_t RecentLines = 100;
constexpr int RecentLineBytes = 500; ///< All of them fit into a pipe that is new.
constexpr const char* Name = "LogStream";

} // namespace

LogStream::LogStream()
{
    setName(LOG4CPLUS_TEXT(Name));
    setThreshold(log4cplus::INFO_LOG_LEVEL);
    setLayout(std::make_unique<log4cplus::PatternLayout>(LOG4CPLUS_TEXT("%D{%Y-%m-%dT%H:%M:%S.%q%z} %-5p %c: %m%n")));
}

LogStream::~LogStream()
{
    destructorImpl(); // Calls close().
}

void LogStream::attach(const log4cplus::SharedAppenderPtr& stream)
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    if (root.getAppender(LOG4CPLUS_TEXT(Name)))
        return;
    static_cast<LogStream*>(stream.get())->reopen();
    root.addAppender(stream);
}

void LogStream::reopen()
{
    const log4cplus::thread::MutexGuard guard(access_mutex);
    closed = false;
}

void LogStream::detach(const log4cplus::SharedAppenderPtr& stream)
{
    log4cplus::Logger::getRoot().removeAppender(stream);
}

int LogStream::open()
{
    const log4cplus::thread::MutexGuard guard(access_mutex);
    dropGone();
    int ends[2] = { -1, -1 };
    if (closed || m_readers.size() >= MaximumReaders || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return -1;
    m_readers.push_back({ ends[1], 0 });
    for (const QByteArray& line : m_recent)
        deliver(&m_readers.back(), line);
    return ends[0];
}

void LogStream::close()
{
    const log4cplus::thread::MutexGuard guard(access_mutex);
    for (const Reader& reader : m_readers)
        ::close(reader.writeEnd);
    m_readers.clear();
    closed = true;
}

void LogStream::append(const log4cplus::spi::InternalLoggingEvent& event)
{
    std::ostringstream text;
    layout->formatAndAppend(text, event);
    QByteArray line = QByteArray::fromStdString(text.str());
    if (line.size() > RecentLineBytes)
        line = line.left(RecentLineBytes) + "...\n";
    m_recent.push_back(line);
    if (m_recent.size() > RecentLines)
        m_recent.pop_front();
    const auto gone = [&line](Reader& reader) {
        if (deliver(&reader, line))
            return false;
        ::close(reader.writeEnd);
        return true;
    };
    m_readers.erase(std::remove_if(m_readers.begin(), m_readers.end(), gone), m_readers.end());
}

// Whole or not at all: a line is shorter than PIPE_BUF. False when the reader has gone.
bool LogStream::deliver(Reader* reader, const QByteArray& line)
{
    static_assert(RecentLineBytes + 100 < PIPE_BUF);
    const QByteArray text = reader->lost ? "... " + QByteArray::number(reader->lost) + " lines lost\n" + line : line;
    if (write(reader->writeEnd, text.constData(), static_cast<size_t>(text.size())) >= 0) {
        reader->lost = 0;
        return true;
    }
    ++reader->lost;
    return errno == EAGAIN || errno == EINTR;
}

// Without a new line nobody notices that a reader has left.
void LogStream::dropGone()
{
    const auto gone = [](const Reader& reader) {
        pollfd polled = { reader.writeEnd, 0, 0 };
        if (poll(&polled, 1, 0) <= 0 || !(polled.revents & POLLERR))
            return false;
        ::close(reader.writeEnd);
        return true;
    };
    m_readers.erase(std::remove_if(m_readers.begin(), m_readers.end(), gone), m_readers.end());
}
