#pragma once

#include <QVariant>

#include <mutex>

class Invocation;

/// One object of the answer, and one line of its table: names with values, in the order of the columns.
using Record = QList<QPair<QString, QVariant>>;

/// What one device said to a command: records, and for a command that has its own form for people, lines.
struct Report {
    QString device; ///< For people and for the member "device"; empty when there is only one.
    QList<Record> records;
    QByteArrayList lines; ///< In place of the table, when there are any.
    bool bare = false; ///< The lines, or what was written at once, are the answer in every format.
    bool answered = true; ///< The device could be reached.
};

/// Standard output, in the format of -o. Every write is checked: a full disk or a closed pipe throws a Failure. Any
/// thread may write.
class Output {
public:
    enum Format { Table, Json, JsonLines };

    explicit Output(const Invocation& invocation);

    Format format() const { return m_format; }
    bool isColoured() const { return m_colour; }
    bool isTerminal() const { return m_width > 0; }
    /// Several reports with a "path" and a "value" come side by side, a column each; others one below the other.
    void print(const QList<Report>& reports);
    /// The reports' records in JSON, as the format wants them.
    QByteArray json(const QList<Report>& reports) const;
    /// At once, for what has no end.
    void write(const QByteArray& bytes);

    /// Whether nobody reads standard output any more.
    static bool isClosed();
    /// Sleeps; false at once when nobody reads standard output any more.
    static bool pause(int milliseconds);

private:
    void printTable(const QList<Report>& reports);
    void printSideBySide(const QList<Report>& reports);

    Format m_format = Table;
    bool m_colour = false;
    int m_width = 0;
    std::mutex m_mutex;
};

/// A record as JSON, with the device where there are several.
QByteArray recordJson(const Record& record, const QString& device);
/// To standard error, a line.
void complain(const QString& text);
