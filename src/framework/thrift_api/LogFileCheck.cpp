#include "LogFileCheck.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QStringList>

#include <algorithm>

#include <log4cplus/spi/factory.h>

namespace {

const QString RootLogger = QStringLiteral("log4cplus.rootLogger");
const QString Logger = QStringLiteral("log4cplus.logger.");
const QString Additivity = QStringLiteral("log4cplus.additivity.");
const QString Appender = QStringLiteral("log4cplus.appender.");

const QSet<QString>& plainKeys()
{
    static const QSet<QString> keys{ "log4cplus.configDebug", "log4cplus.quietMode", "log4cplus.disableOverride",
        "log4cplus.threadPoolSize", "log4cplus.threadPoolBlockOnFull" };
    return keys;
}

/// Of all appenders; the library does not tell which belongs to which.
const QSet<QString>& appenderOptions()
{
    static const QSet<QString> options{ "layout.ConversionPattern", "layout.NDCMaxDepth", "UseLockFile", "LockFile",
        "AsyncAppend", "logToStdErr", "ImmediateFlush", "Locale", "File", "Append", "ReopenDelay", "BufferSize",
        "CreateDirs", "TextMode", "MaxFileSize", "MaxBackupIndex", "Schedule", "RollOnClose", "DatePattern",
        "FilenamePattern", "MaxHistory", "CleanHistoryOnStart", "ident", "facility", "host", "port", "udp", "IPv6",
        "RemoteSyslogType", "FQDN", "ServerName", "QueueLimit", "Appender" };
    return options;
}

/// The library's own look-up complains on standard error.
bool isLevel(const QString& text)
{
    static const QSet<QString> levels{ "OFF", "FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE", "ALL" };
    return levels.contains(text.toUpper());
}

template <class Registry> QString checkClass(const Registry& registry, const QString& name)
{
    return registry.exists(name.toStdString()) ? QString() : QStringLiteral("unknown class \"%1\"").arg(name);
}

QString checkLevel(const QString& text)
{
    return isLevel(text) ? QString() : QStringLiteral("unknown level \"%1\"").arg(text);
}

QString unknownKey(const QString& key)
{
    return QStringLiteral("unknown key \"%1\"").arg(key);
}

/// With "${NAME}" replaced from the environment, where it is set there.
QString expanded(QString value)
{
    static const QRegularExpression variable(QStringLiteral("\\$\\{([^}]*)\\}"));
    QRegularExpressionMatchIterator matches = variable.globalMatch(QString(value));
    while (matches.hasNext()) {
        const QRegularExpressionMatch match = matches.next();
        const QByteArray name = match.captured(1).toLocal8Bit();
        if (qEnvironmentVariableIsSet(name.constData()))
            value.replace(match.captured(0), qEnvironmentVariable(name.constData()));
    }
    return value;
}

/// "LEVEL, appender, appender": the level and the names, each trimmed.
QStringList loggerParts(const QString& value)
{
    QStringList parts = value.split(QLatin1Char(','));
    for (QString& part : parts)
        part = part.trimmed();
    return parts;
}

} // namespace

QString LogFileCheck::fault(const QByteArray& text)
{
    LogFileCheck file;
    QString fault = file.readLines(text);
    for (const Entry& entry : qAsConst(file.m_entries)) {
        const QString found = fault.isEmpty() ? file.check(entry) : QString();
        if (!found.isEmpty())
            fault = QStringLiteral("%1: %2").arg(entry.line).arg(found);
    }
    return fault.isEmpty() ? file.checkOutput() : fault;
}

QString LogFileCheck::readLines(const QByteArray& text)
{
    const QList<QByteArray> lines = text.split('\n');
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = QString::fromUtf8(lines.at(i)).trimmed();
        const int equals = line.indexOf(QLatin1Char('='));
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        if (equals < 0)
            return QStringLiteral("%1: neither a comment nor \"key=value\"").arg(i + 1);
        const Entry entry{ line.left(equals).trimmed(), expanded(line.mid(equals + 1).trimmed()), i + 1 };
        if (m_indices.contains(entry.key))
            return QStringLiteral("%1: the key \"%2\" comes twice").arg(i + 1).arg(entry.key);
        m_indices.insert(entry.key, m_entries.size());
        m_entries.append(entry);
    }
    return {};
}

QString LogFileCheck::value(const QString& key) const
{
    const int index = m_indices.value(key, -1);
    return index < 0 ? QString() : m_entries.at(index).value;
}

QString LogFileCheck::check(const Entry& entry) const
{
    if (plainKeys().contains(entry.key) || entry.key.startsWith(Additivity))
        return {};
    if (entry.key == RootLogger || entry.key.startsWith(Logger))
        return checkLogger(entry.value);
    return entry.key.startsWith(Appender) ? checkAppender(entry.key.mid(Appender.size()), entry.value)
                                          : unknownKey(entry.key);
}

QString LogFileCheck::checkLogger(const QString& value) const
{
    QStringList appenders = loggerParts(value);
    const QString level = appenders.takeFirst();
    if (!level.isEmpty() && level != QLatin1String("INHERITED") && !isLevel(level))
        return checkLevel(level);
    for (const QString& appender : qAsConst(appenders)) {
        if (!m_indices.contains(Appender + appender))
            return QStringLiteral("there is no appender \"%1\"").arg(appender);
    }
    return {};
}

QString LogFileCheck::checkAppender(const QString& name, const QString& value) const
{
    const int dot = name.indexOf(QLatin1Char('.'));
    if (dot < 0) {
        const QString fault = checkClass(log4cplus::spi::getAppenderFactoryRegistry(), value);
        const bool writesFile =
            value.endsWith(QLatin1String("FileAppender")) && !value.contains(QLatin1String("TimeBased"));
        return fault.isEmpty() && writesFile ? checkNeeded(name + QStringLiteral(".File")) : fault;
    }
    const QString appender = name.left(dot);
    const QString option = name.mid(dot + 1);
    if (!m_indices.contains(Appender + appender))
        return QStringLiteral("there is no appender \"%1\"").arg(appender);
    if (option == QLatin1String("layout") && value == QLatin1String("log4cplus::PatternLayout"))
        return checkNeeded(name + QStringLiteral(".ConversionPattern"));
    if (option == QLatin1String("layout"))
        return checkClass(log4cplus::spi::getLayoutFactoryRegistry(), value);
    if (option == QLatin1String("Threshold"))
        return checkLevel(value);
    if (option == QLatin1String("File"))
        return checkWritable(appender, value);
    const bool isNested = option.startsWith(QLatin1String("filters.")) || option.startsWith(QLatin1String("Appender."));
    return isNested || appenderOptions().contains(option) ? QString() : unknownKey(Appender + name);
}

QString LogFileCheck::checkNeeded(const QString& option) const
{
    const QString key = Appender + option;
    return m_indices.contains(key) ? QString() : QStringLiteral("\"%1\" is missing").arg(key);
}

QString LogFileCheck::checkWritable(const QString& appender, const QString& file) const
{
    const QFileInfo info(file);
    const bool makesDirectories = value(Appender + appender + QStringLiteral(".CreateDirs")).toLower() == "true";
    const bool isWritable = info.exists() ? info.isWritable() && !info.isDir() : QFileInfo(info.path()).isWritable();
    return isWritable || makesDirectories ? QString() : QStringLiteral("\"%1\" cannot be written").arg(file);
}

/// Somebody has to log somewhere, unless the file says that nobody shall.
QString LogFileCheck::checkOutput() const
{
    const bool isLogged = std::any_of(m_entries.cbegin(), m_entries.cend(), [](const Entry& entry) {
        return (entry.key == RootLogger || entry.key.startsWith(Logger)) && loggerParts(entry.value).size() > 1;
    });
    const bool isOff = value(RootLogger).compare(QLatin1String("OFF"), Qt::CaseInsensitive) == 0;
    if (isLogged || isOff)
        return {};
    const int root = m_indices.value(RootLogger, -1);
    return QStringLiteral("%1: nothing would be logged: no logger has an appender")
        .arg(root < 0 ? 1 : m_entries.at(root).line);
}
