#include "PageParser.h"

#include <QTextCodec>

#include <algorithm>

namespace {

constexpr int Begin = 5; ///< Length of "<!--#".

struct Syntax {
    const char* name;
    PageCommand::Kind kind;
    QStringList required;
    QStringList optional;
};

const QVector<Syntax>& syntaxes()
{
    static const QString path = QStringLiteral("path");
    static const QString role = QStringLiteral("role");
    static const QString value = QStringLiteral("value");
    static const QVector<Syntax> syntaxes{
        { "get", PageCommand::Get, { path }, { role } },
        { "echo", PageCommand::Echo, { value }, {} },
        { "set", PageCommand::Set, { path, value }, {} },
        { "rows", PageCommand::Rows, { path },
            { QStringLiteral("from"), QStringLiteral("to"), QStringLiteral("count") } },
        { "row", PageCommand::Row, { role }, {} },
        { "endrows", PageCommand::EndRows, {}, {} },
        { "if", PageCommand::If, { QStringLiteral("equals") }, { path, role, value } },
        { "else", PageCommand::Else, {}, {} },
        { "endif", PageCommand::EndIf, {}, {} },
        { "include", PageCommand::Include, { QStringLiteral("file") }, {} },
    };
    return syntaxes;
}

const Syntax& syntaxOf(PageCommand::Kind kind)
{
    return *std::find_if(
        syntaxes().begin(), syntaxes().end(), [kind](const Syntax& syntax) { return syntax.kind == kind; });
}

bool isUtf8(const QByteArray& text)
{
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    QTextCodec::codecForMib(106)->toUnicode(text.constData(), text.size(), &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Two attributes of which one says what the other does.
bool exclude(const PageCommand& command, const char* one, const char* other)
{
    return command.has(one) && command.has(other);
}

} // namespace

bool PageParser::parse(QVector<PageCommand>* commands)
{
    if (m_text.startsWith("\xEF\xBB\xBF"))
        m_text.remove(0, 3);
    if (!isUtf8(m_text))
        fail(QStringLiteral("the page is not UTF-8"));
    while (m_fault.isEmpty() && m_position < m_text.size()) {
        const int begin = m_text.indexOf("<!--#", m_position);
        readLiteral(begin < 0 ? m_text.size() : begin);
        if (m_fault.isEmpty() && begin >= 0)
            readCommand();
    }
    if (m_fault.isEmpty() && !m_blocks.isEmpty())
        failAt(m_commands[m_blocks.constLast().command], QStringLiteral("this is never closed"));
    // Whatever includes it goes on with text.
    if (m_fault.isEmpty() && !m_html.isText())
        fail(QStringLiteral("the page ends inside a tag, a comment or raw text"));
    *commands = m_commands;
    return m_fault.isEmpty();
}

void PageParser::readLiteral(int end)
{
    PageCommand literal;
    literal.literal = m_text.mid(m_position, end - m_position);
    while (m_position < end) {
        if (const char* problem = m_html.feed(m_text.at(m_position))) {
            fail(QString::fromLatin1(problem));
            return;
        }
        advance(1);
    }
    if (!literal.literal.isEmpty())
        m_commands.append(literal);
}

void PageParser::readCommand()
{
    PageCommand command;
    command.line = m_line;
    command.column = m_column;
    advance(Begin);
    const QByteArray name = readWord();
    const auto found = std::find_if(
        syntaxes().begin(), syntaxes().end(), [&name](const Syntax& syntax) { return name == syntax.name; });
    if (found == syntaxes().end()) {
        failAt(command, QStringLiteral("no such command: \"%1\"").arg(QString::fromLatin1(name)));
        return;
    }
    command.kind = found->kind;
    if (readAttributes(&command) && checkAttributes(command) && checkPlace(&command) && useRoles(command)
        && follow(&command))
        m_commands.append(command);
}

bool PageParser::readAttributes(PageCommand* command)
{
    for (;;) {
        const int before = m_position;
        skipBlanks();
        if (m_text.mid(m_position, 3) == "-->") {
            advance(3);
            return true;
        }
        if (m_position == before)
            return fail(QStringLiteral("expected a blank or \"-->\""));
        if (!readAttribute(command))
            return false;
    }
}

bool PageParser::readAttribute(PageCommand* command)
{
    const Syntax& syntax = syntaxOf(command->kind);
    const int nameLine = m_line;
    const int nameColumn = m_column;
    const QString name = QString::fromLatin1(readWord());
    const auto failAtName = [&](const QString& text) {
        m_line = nameLine;
        m_column = nameColumn;
        return fail(text.arg(name));
    };
    if (name.isEmpty())
        return fail(QStringLiteral("expected an attribute or \"-->\""));
    if (!syntax.required.contains(name) && !syntax.optional.contains(name))
        return failAtName(QStringLiteral("no such attribute: \"%1\""));
    if (command->attributes.contains(name))
        return failAtName(QStringLiteral("the attribute \"%1\" is there twice"));
    const char quote = m_position + 1 < m_text.size() ? m_text.at(m_position + 1) : '\0';
    if (m_position >= m_text.size() || m_text.at(m_position) != '=' || (quote != '"' && quote != '\''))
        return fail(QStringLiteral("expected = and a value in quotes"));
    const int end = m_text.indexOf(quote, m_position + 2);
    if (end < 0)
        return fail(QStringLiteral("the value has no end"));
    PageText value;
    QString problem;
    if (!value.parse(QString::fromUtf8(m_text.mid(m_position + 2, end - m_position - 2)), &problem))
        return fail(problem);
    command->attributes.insert(name, value);
    advance(end + 1 - m_position);
    return true;
}

bool PageParser::checkAttributes(const PageCommand& command)
{
    for (const QString& name : syntaxOf(command.kind).required) {
        if (!command.attributes.contains(name))
            return failAt(command, QStringLiteral("the attribute \"%1\" is missing").arg(name));
    }
    if (command.kind == PageCommand::If && command.has("path") == command.has("value"))
        return failAt(command, QStringLiteral("either \"path\" or \"value\" is needed"));
    if (exclude(command, "to", "count") || exclude(command, "role", "value"))
        return failAt(command, QStringLiteral("of these attributes only one can be there"));
    if (command.kind == PageCommand::Include && !command.attribute("file").isLiteral())
        return failAt(command, QStringLiteral("the name of a file has no variables"));
    if (command.kind == PageCommand::Row && !command.attribute("role").isLiteral())
        return failAt(command, QStringLiteral("the role of a row has no variables"));
    return true;
}

bool PageParser::checkPlace(PageCommand* command)
{
    const bool isOutput =
        command->kind == PageCommand::Get || command->kind == PageCommand::Echo || command->kind == PageCommand::Row;
    if (const char* problem = isOutput ? m_html.output(&command->place) : m_html.control())
        return failAt(*command, QStringLiteral("not %1").arg(QString::fromLatin1(problem)));
    if (command->kind == PageCommand::Include && !m_html.isText())
        return failAt(*command, QStringLiteral("only text can include a file"));
    if (!isOutput && m_html.isText())
        command->place = HtmlPlace::Text;
    return true;
}

// The rows are asked for what their block shows of them.
bool PageParser::useRoles(const PageCommand& command)
{
    if (command.kind == PageCommand::Row && !useRole(command.attribute("role").literal()))
        return failAt(command, QStringLiteral("there are no rows here"));
    for (const PageText& text : command.attributes) {
        for (const PageText::Piece& piece : text.pieces()) {
            if (piece.source == PageText::Row && !useRole(piece.text))
                return failAt(command, QStringLiteral("there are no rows here"));
        }
    }
    return true;
}

bool PageParser::useRole(const QString& role)
{
    const auto block = std::find_if(m_blocks.crbegin(), m_blocks.crend(),
        [this](const Block& open) { return m_commands[open.command].kind == PageCommand::Rows; });
    if (block == m_blocks.crend())
        return false;
    QStringList& roles = m_commands[block->command].roles;
    if (!roles.contains(role))
        roles.append(role);
    return true;
}

bool PageParser::follow(PageCommand* command)
{
    switch (command->kind) {
    case PageCommand::If:
    case PageCommand::Rows:
        m_blocks.append({ m_commands.size(), -1, m_html, m_html });
        return true;
    case PageCommand::Else:
        return turn(*command);
    case PageCommand::EndIf:
        return close(PageCommand::If, command);
    case PageCommand::EndRows:
        return close(PageCommand::Rows, command);
    default:
        return true;
    }
}

bool PageParser::turn(const PageCommand& command)
{
    const bool isOpen = !m_blocks.isEmpty() && m_blocks.constLast().elseCommand < 0
        && m_commands[m_blocks.constLast().command].kind == PageCommand::If;
    if (!isOpen)
        return failAt(command, QStringLiteral("there is no \"if\" for this"));
    Block& block = m_blocks.last();
    block.ended = m_html;
    if (!m_html.merge(block.began))
        return failAt(command, QStringLiteral("the branch does not end where it began in the HTML"));
    m_html = block.began;
    block.elseCommand = m_commands.size();
    m_commands[block.command].target = block.elseCommand + 1;
    return true;
}

bool PageParser::close(PageCommand::Kind opener, PageCommand* closer)
{
    if (m_blocks.isEmpty() || m_commands[m_blocks.constLast().command].kind != opener)
        return failAt(*closer, QStringLiteral("there is nothing that this could close"));
    const Block block = m_blocks.takeLast();
    HtmlContext fromBegin = m_html;
    if (!fromBegin.merge(block.began) || !m_html.merge(block.ended))
        return failAt(*closer, QStringLiteral("the block does not end where it began in the HTML"));
    const int jump = block.elseCommand >= 0 ? block.elseCommand : block.command;
    m_commands[jump].target = m_commands.size();
    closer->target = block.command;
    return true;
}

QByteArray PageParser::readWord()
{
    int end = m_position;
    while (end < m_text.size() && m_text.at(end) >= 'a' && m_text.at(end) <= 'z')
        ++end;
    const QByteArray word = m_text.mid(m_position, end - m_position);
    advance(word.size());
    return word;
}

void PageParser::skipBlanks()
{
    while (m_position < m_text.size() && isBlank(m_text.at(m_position)))
        advance(1);
}

void PageParser::advance(int offset)
{
    for (const int end = m_position + offset; m_position < end; ++m_position) {
        const auto c = static_cast<unsigned char>(m_text.at(m_position));
        const bool begins = (c & 0xC0) != 0x80; // Not a character's second byte or a later one.
        m_line += c == '\n' ? 1 : 0;
        m_column = c == '\n' ? 1 : m_column + (begins ? 1 : 0);
    }
}

bool PageParser::fail(const QString& text)
{
    m_fault = { {}, m_line, m_column, text };
    return false;
}

bool PageParser::failAt(const PageCommand& command, const QString& text)
{
    m_fault = { {}, command.line, command.column, text };
    return false;
}
