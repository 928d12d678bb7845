#include "Progress.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

const int BarWidth = 30;
const int RedrawMilliseconds = 100;

QString amount(qint64 number, const char* unit)
{
    if (unit)
        return QStringLiteral("%1 %2").arg(number).arg(QLatin1String(unit));
    return QStringLiteral("%1 MiB").arg(double(number) / (1024 * 1024), 0, 'f', 1);
}

} // namespace

Progress::Progress(const QString& what, bool shown) : m_what(what), m_shown(shown && ::isatty(STDERR_FILENO)) { }

Progress::~Progress()
{
    if (m_drawn)
        std::fputs("\r\033[K", stderr);
}

void Progress::show(qint64 done, qint64 total, const char* unit)
{
    if (!m_shown || total <= 0 || (m_last.isValid() && m_last.elapsed() < RedrawMilliseconds && done < total))
        return;
    m_last.start();
    m_drawn = true;
    const int full = int(BarWidth * std::min(done, total) / total);
    const QString bar = QString(full, QLatin1Char('#')) + QString(BarWidth - full, QLatin1Char('.'));
    const QString line = QStringLiteral("%1 [%2] %3% of %4").arg(m_what, bar).arg(100 * done / total);
    std::fprintf(stderr, "\r%s\033[K", line.arg(amount(total, unit)).toUtf8().constData());
}
