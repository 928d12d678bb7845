#pragma once

#include <QElapsedTimer>
#include <QString>

/// A bar on standard error, when that is a terminal, and nothing otherwise. It goes with the object.
class Progress {
public:
    explicit Progress(const QString& what, bool shown = true);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// `unit` follows the numbers, such as "nodes"; bytes without one.
    void show(qint64 done, qint64 total, const char* unit = nullptr);

private:
    QString m_what;
    bool m_shown;
    bool m_drawn = false;
    QElapsedTimer m_last;
};
