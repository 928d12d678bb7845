#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <ostream>
#include <sstream>
#include <string>

#include <log4cplus/logger.h>

/// A named logger whose threshold is cached, so that a message that is off costs one comparison.
///
/// Create one per library as a function-local static. All living loggers are refreshed by configure*().
/// Before the first configure*() warnings and worse go to standard error. Any thread may log.
class DbgLogger {
public:
    explicit DbgLogger(const char* name);
    ~DbgLogger();
    DbgLogger(const DbgLogger&) = delete;
    DbgLogger& operator=(const DbgLogger&) = delete;

    bool isEnabled(log4cplus::LogLevel level) const { return level >= m_threshold.load(std::memory_order_relaxed); }
    /// Logs `text` as one line: control characters in it are written as escapes.
    void write(log4cplus::LogLevel level, const std::string& text) const;

    /// Sends every logger to standard error at `level` ("trace", "debug", "info", "warn", "error", "fatal", "off"),
    /// with syslog priorities ("<6>") in front when `journal` is set. False for a level of another name.
    static bool configure(const QString& level, bool journal);
    /// Reads a log4cplus property file; false with "<file>:<line>: <what>" in `error`, and everything as it was, when
    /// it cannot be read or has a fault.
    static bool configureFromFile(const QString& file, QString* error);

private:
    static void refreshAll(); // With the list of loggers locked.

    log4cplus::Logger m_logger;
    std::atomic<log4cplus::LogLevel> m_threshold;
};

/// Logs "Enter " and "Leave " with the function's signature at trace level.
class DbgScopedFunction {
public:
    DbgScopedFunction(const DbgLogger& logger, const char* signature)
        : m_logger(logger.isEnabled(log4cplus::TRACE_LOG_LEVEL) ? &logger : nullptr), m_signature(signature)
    {
        if (m_logger)
            m_logger->write(log4cplus::TRACE_LOG_LEVEL, std::string("Enter ") + m_signature);
    }
    ~DbgScopedFunction()
    {
        if (m_logger)
            m_logger->write(log4cplus::TRACE_LOG_LEVEL, std::string("Leave ") + m_signature);
    }
    DbgScopedFunction(const DbgScopedFunction&) = delete;
    DbgScopedFunction& operator=(const DbgScopedFunction&) = delete;

private:
    const DbgLogger* m_logger;
    const char* m_signature;
};

inline std::ostream& operator<<(std::ostream& out, const QString& text)
{
    return out << text.toStdString();
}
inline std::ostream& operator<<(std::ostream& out, const QByteArray& bytes)
{
    return out.write(bytes.constData(), bytes.size());
}

#define dbglog_scopedFunction(logger) DbgScopedFunction dbglogScope((logger), Q_FUNC_INFO)

// The expression is a chain for operator<< and is evaluated only when the level is on.
#define dbglog_write(logger, level, expression)                                                                        \
    do {                                                                                                               \
        if ((logger).isEnabled(level)) {                                                                               \
            std::ostringstream dbglogText;                                                                             \
            dbglogText << expression;                                                                                  \
            (logger).write(level, dbglogText.str());                                                                   \
        }                                                                                                              \
    } while (false)
#define dbglog_trace(logger, expression) dbglog_write(logger, log4cplus::TRACE_LOG_LEVEL, expression)
#define dbglog_debug(logger, expression) dbglog_write(logger, log4cplus::DEBUG_LOG_LEVEL, expression)
#define dbglog_info(logger, expression) dbglog_write(logger, log4cplus::INFO_LOG_LEVEL, expression)
#define dbglog_warn(logger, expression) dbglog_write(logger, log4cplus::WARN_LOG_LEVEL, expression)
#define dbglog_error(logger, expression) dbglog_write(logger, log4cplus::ERROR_LOG_LEVEL, expression)
#define dbglog_fatal(logger, expression) dbglog_write(logger, log4cplus::FATAL_LOG_LEVEL, expression)
