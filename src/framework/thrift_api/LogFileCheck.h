#pragma once

#include <QHash>
#include <QString>
#include <QVector>

/// Finds in a log4cplus property file what the library passes over in silence: a misspelt key, level or class, a logger
/// without its appender, a file that cannot be written. One file: "include" is refused.
class LogFileCheck {
public:
    /// "<line>: <what>" for the first fault of `text`; empty when there is none. The library must be initialised.
    static QString fault(const QByteArray& text);

private:
    struct Entry {
        QString key;
        QString value;
        int line;
    };

    QString readLines(const QByteArray& text);
    QString check(const Entry& entry) const;
    QString checkLogger(const QString& value) const;
    QString checkAppender(const QString& name, const QString& value) const;
    QString checkNeeded(const QString& option) const;
    QString checkWritable(const QString& appender, const QString& file) const;
    QString checkOutput() const;
    QString value(const QString& key) const;

    QVector<Entry> m_entries;
    QHash<QString, int> m_indices; ///< Into m_entries, by key.
};
