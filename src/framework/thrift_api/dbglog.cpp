#include "dbglog.h"

#include <QFile>
#include <QVector>

#include <exception>
#include <memory>
#include <mutex>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/hierarchy.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/spi/loggingevent.h>

#include "LogFileCheck.h"

namespace {

struct Registry {
    std::mutex mutex;
    QVector<DbgLogger*> loggers;
};

/// Never destroyed: loggers are function-local statics of many libraries, in any order of destruction.
Registry& registry()
{
    static Registry* const instance = new Registry;
    return *instance;
}

/// "<6>name: message", which a journal reads as a message of that syslog priority and stamps itself.
class JournalLayout : public log4cplus::Layout {
public:
    void formatAndAppend(log4cplus::tostream& output, const log4cplus::spi::InternalLoggingEvent& event) override
    {
        output << '<' << priority(event.getLogLevel()) << '>' << event.getLoggerName() << ": " << event.getMessage()
               << '\n';
    }

private:
    static int priority(log4cplus::LogLevel level)
    {
        if (level >= log4cplus::FATAL_LOG_LEVEL)
            return 2;
        if (level >= log4cplus::ERROR_LOG_LEVEL)
            return 3;
        if (level >= log4cplus::WARN_LOG_LEVEL)
            return 4;
        return level >= log4cplus::INFO_LOG_LEVEL ? 6 : 7;
    }
};

void logToStandardError(log4cplus::LogLevel level, bool journal)
{
    std::unique_ptr<log4cplus::Layout> layout;
    if (journal)
        layout = std::make_unique<JournalLayout>();
    else
        layout = std::make_unique<log4cplus::PatternLayout>("%D{%Y-%m-%dT%H:%M:%S.%q%z} %-5p %c: %m%n");
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true, true));
    appender->setLayout(std::move(layout));

    log4cplus::Logger::getDefaultHierarchy().resetConfiguration();
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.setLogLevel(level);
    root.addAppender(appender);
}

/// log4cplus is never shut down again: libraries log until the last destructor has run.
void initializeOnce()
{
    static const bool done = [] {
        log4cplus::initialize();
        log4cplus::setThreadPoolSize(1); // For asynchronous appenders only; the least that the library takes.
        logToStandardError(log4cplus::WARN_LOG_LEVEL, false);
        return true;
    }();
    Q_UNUSED(done)
}

log4cplus::Logger loggerOf(const char* name)
{
    initializeOnce();
    return log4cplus::Logger::getInstance(name);
}

bool levelFromString(const QString& text, log4cplus::LogLevel* level)
{
    static const struct {
        const char* name;
        log4cplus::LogLevel level;
    } levels[] = {
        { "trace", log4cplus::TRACE_LOG_LEVEL },
        { "debug", log4cplus::DEBUG_LOG_LEVEL },
        { "info", log4cplus::INFO_LOG_LEVEL },
        { "warn", log4cplus::WARN_LOG_LEVEL },
        { "error", log4cplus::ERROR_LOG_LEVEL },
        { "fatal", log4cplus::FATAL_LOG_LEVEL },
        { "off", log4cplus::OFF_LOG_LEVEL },
    };
    for (const auto& entry : levels) {
        if (text == QLatin1String(entry.name)) {
            *level = entry.level;
            return true;
        }
    }
    return false;
}

bool isControl(uchar c)
{
    return c < 0x20 || c == 0x7F;
}

/// U+0080 to U+009F, which terminals obey as well.
bool isC1Control(const std::string& text, size_t i)
{
    return uchar(text[i]) == 0xC2 && i + 1 < text.size() && uchar(text[i + 1]) >= 0x80 && uchar(text[i + 1]) < 0xA0;
}

void appendEscaped(std::string& out, uchar c)
{
    static const char digits[] = "0123456789abcdef";
    if (c == '\n' || c == '\r' || c == '\t') {
        out += '\\';
        out += c == '\n' ? 'n' : c == '\r' ? 'r' : 't';
        return;
    }
    out += "\\x";
    out += digits[c >> 4];
    out += digits[c & 0xF];
}

/// What a remote peer sends ends up in messages: without control characters it cannot forge a line.
std::string singleLine(const std::string& text)
{
    std::string out;
    out.reserve(text.size() + 8);
    for (size_t i = 0; i < text.size(); ++i) {
        if (isC1Control(text, i))
            appendEscaped(out, uchar(text[++i]));
        else if (isControl(uchar(text[i])))
            appendEscaped(out, uchar(text[i]));
        else
            out += text[i];
    }
    return out;
}

} // namespace

DbgLogger::DbgLogger(const char* name) : m_logger(loggerOf(name)), m_threshold(m_logger.getChainedLogLevel())
{
    const std::lock_guard<std::mutex> lock(registry().mutex);
    // Again, under the lock: the configuration may have changed since.
    m_threshold = m_logger.getChainedLogLevel();
    registry().loggers.append(this);
}

DbgLogger::~DbgLogger()
{
    const std::lock_guard<std::mutex> lock(registry().mutex);
    registry().loggers.removeOne(this);
}

void DbgLogger::write(log4cplus::LogLevel level, const std::string& text) const
{
    m_logger.log(level, singleLine(text));
}

bool DbgLogger::configure(const QString& level, bool journal)
{
    log4cplus::LogLevel threshold = log4cplus::OFF_LOG_LEVEL;
    if (!levelFromString(level, &threshold))
        return false;
    initializeOnce();
    const std::lock_guard<std::mutex> lock(registry().mutex);
    logToStandardError(threshold, journal);
    refreshAll();
    return true;
}

bool DbgLogger::configureFromFile(const QString& file, QString* error)
{
    QFile readable(file);
    if (!readable.open(QIODevice::ReadOnly)) {
        if (error)
            *error = QStringLiteral("%1: %2").arg(file, readable.errorString());
        return false;
    }
    initializeOnce();
    // The library would take it, complain to nobody who reads, and log nothing.
    const QString fault = LogFileCheck::fault(readable.readAll());
    if (!fault.isEmpty()) {
        if (error)
            *error = QStringLiteral("%1:%2").arg(file, fault);
        return false;
    }
    const std::lock_guard<std::mutex> lock(registry().mutex);
    try {
        log4cplus::Logger::getDefaultHierarchy().resetConfiguration();
        log4cplus::PropertyConfigurator(QFile::encodeName(file).toStdString()).configure();
        refreshAll();
        return true;
    } catch (const std::exception& exception) {
        logToStandardError(log4cplus::WARN_LOG_LEVEL, false);
        refreshAll();
        if (error)
            *error = QStringLiteral("%1: %2").arg(file, QString::fromLocal8Bit(exception.what()));
        return false;
    }
}

void DbgLogger::refreshAll()
{
    for (DbgLogger* logger : qAsConst(registry().loggers))
        logger->m_threshold = logger->m_logger.getChainedLogLevel();
}
