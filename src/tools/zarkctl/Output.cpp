#include "Output.h"

#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "CommandLine.h"
#include "Table.h"
#include "ValueText.h"
#include "ZarkJson.h"

namespace {

QVariant valueOf(const Record& record, const QString& name)
{
    for (const auto& field : record) {
        if (field.first == name)
            return field.second;
    }
    return {};
}

int terminalWidth()
{
    winsize size{};
    if (!::isatty(STDOUT_FILENO) || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0)
        return 0;
    return size.ws_col;
}

bool canStandSideBySide(const QList<Report>& reports)
{
    int filled = 0;
    for (const Report& report : reports) {
        if (report.records.isEmpty()) // It failed; the others can stand without it.
            continue;
        ++filled;
        if (valueOf(report.records.first(), QStringLiteral("path")).isNull()
            || report.records.first().constLast().first != QLatin1String("value") || !report.lines.isEmpty())
            return false;
    }
    return filled > 0 && reports.size() > 1;
}

} // namespace

Output::Output(const Invocation& invocation)
{
    const QString format = invocation.value("output", QStringLiteral("table"));
    m_format = format == QLatin1String("json") ? Json : format == QLatin1String("jsonl") ? JsonLines : Table;
    m_colour = ::isatty(STDOUT_FILENO) && qEnvironmentVariableIsEmpty("NO_COLOR") && qgetenv("TERM") != "dumb";
    m_width = terminalWidth();
}

void Output::write(const QByteArray& bytes)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (int at = 0; at < bytes.size();) {
        const ssize_t written = ::write(STDOUT_FILENO, bytes.constData() + at, size_t(bytes.size() - at));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            throw Failure{ ExitFailed,
                QStringLiteral("standard output: ") + QString::fromLocal8Bit(std::strerror(errno)) };
        at += int(written);
    }
}

bool Output::pause(int milliseconds)
{
    // No event is asked for: what remains are an error and the end of the reader.
    pollfd end{ STDOUT_FILENO, 0, 0 };
    return ::poll(&end, 1, milliseconds) <= 0 || !(end.revents & (POLLERR | POLLHUP | POLLNVAL));
}

bool Output::isClosed()
{
    return !pause(0);
}

QByteArray recordJson(const Record& record, const QString& device)
{
    QVariantHash object;
    if (!device.isEmpty())
        object.insert(QStringLiteral("device"), device);
    for (const auto& field : record)
        object.insert(field.first, field.second);
    return ZarkJson::serialize(object);
}

void complain(const QString& text)
{
    std::fprintf(stderr, "zarkctl: %s\n", ValueText::printable(text, true).toUtf8().constData());
}

void Output::print(const QList<Report>& reports)
{
    bool bare = false;
    for (const Report& report : reports)
        bare = bare || report.bare;
    if (bare || m_format == Table)
        canStandSideBySide(reports) ? printSideBySide(reports) : printTable(reports);
    else
        write(json(reports));
}

QByteArray Output::json(const QList<Report>& reports) const
{
    QByteArrayList objects;
    for (const Report& report : reports) {
        for (const Record& record : report.records)
            objects.append(recordJson(record, report.device));
    }
    if (m_format == JsonLines)
        return objects.isEmpty() ? QByteArray() : objects.join('\n') + '\n';
    return '[' + objects.join(",\n ") + "]\n";
}

void Output::printTable(const QList<Report>& reports)
{
    QStringList header;
    QList<QStringList> rows;
    for (const Report& report : reports) {
        const QByteArray prefix = report.device.isEmpty() || report.bare ? QByteArray() : report.device.toUtf8() + ": ";
        for (const QByteArray& line : report.lines)
            write(prefix + line + '\n');
        for (const Record& record : report.lines.isEmpty() ? report.records : QList<Record>()) {
            QStringList row = report.device.isEmpty() ? QStringList() : QStringList{ report.device };
            QStringList names = report.device.isEmpty() ? QStringList() : QStringList{ QStringLiteral("DEVICE") };
            for (const auto& field : record) {
                names.append(field.first.toUpper());
                row.append(ValueText::cell(field.second));
            }
            header = names;
            rows.append(row);
        }
    }
    if (rows.isEmpty())
        return;
    ::Table table(header);
    for (const QStringList& row : qAsConst(rows))
        table.addRow(row);
    write(table.text(m_width, m_colour));
}

void Output::printSideBySide(const QList<Report>& reports)
{
    QStringList header{ QStringLiteral("PATH") };
    QStringList paths;
    for (const Report& report : reports) {
        header.append(report.device);
        for (const Record& record : report.records) {
            const QString path = valueOf(record, QStringLiteral("path")).toString();
            if (!paths.contains(path))
                paths.append(path);
        }
    }
    ::Table table(header + QStringList{ QStringLiteral("SAME") });
    for (const QString& path : qAsConst(paths)) {
        QStringList row{ path };
        for (const Report& report : reports) {
            QString cell = QStringLiteral("-");
            for (const Record& record : report.records) {
                if (valueOf(record, QStringLiteral("path")) == path)
                    cell = ValueText::cell(record.constLast().second);
            }
            row.append(cell);
        }
        const bool differs = row.mid(2).count(row.at(1)) != row.size() - 2;
        table.addRow(row + QStringList{ differs ? QStringLiteral("no") : QStringLiteral("yes") }, differs);
    }
    write(table.text(m_width, m_colour));
}
