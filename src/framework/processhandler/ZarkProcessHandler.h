#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

class ZarkProcessResult {
public:
    ZarkProcessResult(bool finishedOk, const QByteArray& data) : m_finishedOk(finishedOk), m_data(data) { }

    bool finishedOk() const { return m_finishedOk; } ///< The program ran and exited with status 0.
    const QByteArray& getData() const { return m_data; } ///< Standard output and error, in the order written.

private:
    bool m_finishedOk;
    QByteArray m_data;
};

/// Runs external programs, without a shell.
class ZarkProcessHandler {
public:
    /// Runs `program` (searched in PATH) to its end and blocks the caller meanwhile, for `timeoutMs` milliseconds at
    /// the most; then it is killed and reported as not finished. A program that cannot be started is reported so too,
    /// with the reason as data.
    static ZarkProcessResult startSync(const QString& program, const QStringList& arguments, int timeoutMs);
};
