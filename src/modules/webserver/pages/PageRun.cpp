#include "PageRun.h"

#include <algorithm>
#include <limits>

#include "HtmlText.h"

namespace {

constexpr int StepsAtOnce = 1000;
constexpr int MaximumSteps = 1000 * 1000; ///< Rows in rows in rows.
constexpr int DefaultCount = 100;
constexpr int ReadsAtOnce = 64;
constexpr int HeldTexts = 50000; ///< Of answers; then they are asked for again.

const PageAnswer& readTooMuch()
{
    static const PageAnswer answer{ QStringLiteral("The page reads too much."), {}, 0, {} };
    return answer;
}

// True, with nothing changed, for an empty text.
bool readNumber(const QString& text, qint64 minimum, qint64* number)
{
    if (text.isEmpty())
        return true;
    bool ok = false;
    *number = text.toLongLong(&ok);
    return ok && *number >= minimum && *number <= std::numeric_limits<int>::max();
}

} // namespace

PageRun::State PageRun::run()
{
    m_state = Paused;
    for (int steps = 0; m_position < m_page->commands.size(); ++steps) {
        if (m_output.size() > MaximumBytes || ++m_steps > MaximumSteps)
            return TooLong;
        if (steps == StepsAtOnce)
            return Paused;
        if (step(m_page->commands[m_position]) == Stay)
            return m_state;
        ++m_position;
    }
    return m_output.size() > MaximumBytes ? TooLong : Finished;
}

PageRun::Step PageRun::step(const PageCommand& command)
{
    switch (command.kind) {
    case PageCommand::Literal:
        m_output += command.literal;
        return Next;
    case PageCommand::Get:
        return get(command);
    case PageCommand::Echo:
        put(command, text(command.attribute("value")));
        return Next;
    case PageCommand::Set:
        return set(command);
    case PageCommand::Rows:
        return beginRows(command);
    case PageCommand::Row:
        put(command, rowText(command.attribute("role").literal()));
        return Next;
    case PageCommand::EndRows:
        endRows(command);
        return Next;
    case PageCommand::If:
        return decide(command);
    case PageCommand::Else:
        m_position = command.target;
        return Next;
    case PageCommand::EndIf:
    case PageCommand::Include: // What it included stands in its place.
        return Next;
    }
    return Next;
}

PageRun::Step PageRun::get(const PageCommand& command)
{
    const PageAnswer* answer = findNode(command);
    if (!answer)
        return Stay;
    if (answer->error.isEmpty())
        put(command, answer->rows.value(0).value(0));
    return Next;
}

PageRun::Step PageRun::set(const PageCommand& command)
{
    const PageText path = command.attribute("path");
    const PageText value = command.attribute("value");
    if (!m_input.isPost || m_hasFailed || !wasSent(path) || !wasSent(value))
        return Next;
    m_write = { text(path), text(value) };
    m_state = Setting;
    return Stay;
}

void PageRun::answer(const PageRead& read, const PageAnswer& answer)
{
    m_answers.insert(read, answer);
    m_heldTexts += answer.rows.size() * read.roles.size();
}

void PageRun::setDone(const QString& error)
{
    m_hasWritten = true;
    m_hasFailed = !error.isEmpty();
    if (m_hasFailed)
        report(m_page->commands[m_position], m_write.path, error);
    m_answers.clear();
    ++m_position;
}

PageRun::Step PageRun::beginRows(const PageCommand& command)
{
    QString problem;
    const PageRead read = readOfRows(command, &problem);
    const PageAnswer* answer = problem.isEmpty() ? find(read) : nullptr;
    if (problem.isEmpty() && !answer)
        return Stay;
    if (problem.isEmpty() && answer->error.isEmpty()) {
        noteRows(read, *answer);
        if (!answer->notice.isEmpty())
            m_error = answer->notice;
        if (!answer->rows.isEmpty()) {
            m_blocks.append({ m_position, *answer, 0 });
            return Next;
        }
    } else {
        report(command, read.path, problem.isEmpty() ? answer->error : problem);
    }
    m_position = command.target;
    return Next;
}

void PageRun::endRows(const PageCommand& command)
{
    Block& block = m_blocks.last();
    if (++block.row < block.answer.rows.size())
        m_position = command.target;
    else
        m_blocks.removeLast();
}

PageRun::Step PageRun::decide(const PageCommand& command)
{
    bool holds = false;
    const QString equals = text(command.attribute("equals"));
    if (command.has("value")) {
        holds = text(command.attribute("value")) == equals;
    } else {
        const PageAnswer* answer = findNode(command);
        if (!answer)
            return Stay;
        holds = answer->error.isEmpty() && answer->rows.value(0).value(0) == equals;
    }
    if (!holds)
        m_position = command.target - 1;
    return Next;
}

// Null when it has to be asked for first.
const PageAnswer* PageRun::find(const PageRead& read)
{
    const auto found = m_answers.constFind(read);
    if (found != m_answers.constEnd())
        return &*found;
    if (m_readCount >= MaximumReads)
        return &readTooMuch();
    collect();
    m_readCount += m_reads.size();
    m_state = Reading;
    return nullptr;
}

// The same for the node of a command; an error is reported.
const PageAnswer* PageRun::findNode(const PageCommand& command)
{
    const PageRead read = readOfNode(command);
    const PageAnswer* answer = find(read);
    if (answer && !answer->error.isEmpty())
        report(command, read.path, answer->error);
    return answer;
}

// What is certain to be read from here on goes out together: up to where it depends on an answer how the page goes on.
void PageRun::collect()
{
    m_reads.clear();
    if (m_heldTexts > HeldTexts) {
        m_answers.clear();
        m_heldTexts = 0;
    }
    for (int i = m_position; i < m_page->commands.size(); ++i) {
        const PageCommand& command = m_page->commands[i];
        PageRead read;
        if (wouldRead(command, &read) && !m_answers.contains(read) && !m_reads.contains(read))
            m_reads.append(read);
        const bool isOpen = command.kind == PageCommand::If || command.kind == PageCommand::Rows
            || command.kind == PageCommand::EndRows || (command.kind == PageCommand::Set && m_input.isPost);
        if (isOpen || m_reads.size() == ReadsAtOnce)
            return;
        if (command.kind == PageCommand::Else)
            i = command.target;
    }
}

bool PageRun::wouldRead(const PageCommand& command, PageRead* read) const
{
    QString problem;
    if (command.kind == PageCommand::Rows)
        *read = readOfRows(command, &problem);
    else if (command.kind == PageCommand::Get || (command.kind == PageCommand::If && command.has("path")))
        *read = readOfNode(command);
    else
        return false;
    return problem.isEmpty();
}

PageRead PageRun::readOfNode(const PageCommand& command) const
{
    const QString role = command.has("role") ? text(command.attribute("role")) : QStringLiteral("value");
    return { text(command.attribute("path")), { role }, -1, -1 };
}

PageRead PageRun::readOfRows(const PageCommand& command, QString* problem) const
{
    qint64 from = 0;
    qint64 to = -1;
    qint64 count = DefaultCount;
    const bool areNumbers = readNumber(text(command.attribute("from")), 0, &from)
        && readNumber(text(command.attribute("to")), 0, &to) && readNumber(text(command.attribute("count")), 1, &count);
    if (!areNumbers)
        *problem = QStringLiteral("There is a number of rows that is none.");
    if (to < 0)
        to = std::min<qint64>(from + count - 1, std::numeric_limits<int>::max());
    return { text(command.attribute("path")), command.roles, static_cast<int>(from), static_cast<int>(to) };
}

// For links to the pages before and after this one.
void PageRun::noteRows(const PageRead& read, const PageAnswer& answer)
{
    const int next = read.from + answer.rows.size();
    const int previous = std::max(0, read.from - (read.to - read.from + 1));
    m_rows.clear();
    m_rows.insert(QStringLiteral("from"), QString::number(read.from));
    m_rows.insert(QStringLiteral("to"), QString::number(next - 1));
    m_rows.insert(QStringLiteral("count"), QString::number(answer.rowsCount));
    m_rows.insert(QStringLiteral("next"), next < answer.rowsCount ? QString::number(next) : QString());
    m_rows.insert(QStringLiteral("previous"), read.from > 0 ? QString::number(previous) : QString());
}

bool PageRun::wasSent(const PageText& text) const
{
    const QVector<PageText::Piece>& pieces = text.pieces();
    return std::all_of(pieces.begin(), pieces.end(), [this](const PageText::Piece& piece) {
        return piece.source != PageText::Form || m_input.form.contains(piece.text);
    });
}

QString PageRun::text(const PageText& text) const
{
    QString result;
    for (const PageText::Piece& piece : text.pieces())
        result += piece.source == PageText::Literal ? piece.text : variable(piece);
    return result;
}

QString PageRun::variable(const PageText::Piece& piece) const
{
    switch (piece.source) {
    case PageText::Error:
        return m_error;
    case PageText::Form:
        return m_input.form.value(piece.text);
    case PageText::Query:
        return m_input.query.value(piece.text);
    case PageText::Row:
        return rowText(piece.text);
    case PageText::Rows:
        return m_rows.value(piece.text);
    case PageText::Literal:
        break;
    }
    return {};
}

QString PageRun::rowText(const QString& role) const
{
    if (m_blocks.isEmpty())
        return {};
    const Block& block = m_blocks.constLast();
    return block.answer.rows[block.row].value(m_page->commands[block.command].roles.indexOf(role));
}

void PageRun::put(const PageCommand& command, const QString& text)
{
    const bool isHarmful = command.place == HtmlPlace::UrlStart && !isHarmlessUrl(text);
    m_output += isHarmful ? QByteArrayLiteral("#") : escapeHtml(text);
}

// Escaped, no text ends the comment.
void PageRun::report(const PageCommand& command, const QString& path, const QString& error)
{
    m_error = error;
    if (command.place == HtmlPlace::Text)
        m_output += "<!-- error: " + escapeHtml(path + QStringLiteral(": ") + error) + " -->";
}
