#include "PageText.h"

#include <QRegularExpression>

#include <algorithm>
#include <iterator>

namespace {

// A dollar, and what it begins. Possessive: "$rowsx" is no "$rows".
const QRegularExpression& variable()
{
    static const QRegularExpression expression(
        QStringLiteral("\\$(?:(\\$)|([a-z]++)(?:(?<=\\$error)|\\.([A-Za-z0-9_-]+)))?"));
    return expression;
}

bool readVariable(const QString& word, const QString& name, PageText::Piece* piece)
{
    static const char* const words[] = { "", "error", "form", "query", "row", "rows" };
    static const char* const ranges[] = { "from", "to", "count", "next", "previous" };
    const auto isSame = [](const QString& text) {
        return [&text](const char* other) {
            return text == QLatin1String(other);
        };
    };
    const auto* found = std::find_if(std::next(std::begin(words)), std::end(words), isSame(word));
    if (found == std::end(words))
        return false;
    *piece = { static_cast<PageText::Source>(found - std::begin(words)), name };
    return piece->source != PageText::Rows || std::any_of(std::begin(ranges), std::end(ranges), isSame(name));
}

} // namespace

bool PageText::parse(const QString& text, QString* problem)
{
    QString literal;
    int position = 0;
    const auto flush = [this, &literal] {
        if (!literal.isEmpty())
            m_pieces.append({ Literal, literal });
        literal.clear();
    };
    for (int dollar = text.indexOf(QLatin1Char('$')); dollar >= 0; dollar = text.indexOf(QLatin1Char('$'), position)) {
        literal += text.midRef(position, dollar - position);
        const QRegularExpressionMatch match =
            variable().match(text, dollar, QRegularExpression::NormalMatch, QRegularExpression::AnchoredMatchOption);
        position = match.capturedEnd();
        if (!match.captured(1).isEmpty()) {
            literal += QLatin1Char('$');
            continue;
        }
        Piece piece{ Literal, {} };
        if (!readVariable(match.captured(2), match.captured(3), &piece)) {
            *problem = QStringLiteral("no such variable: \"%1\"").arg(text.mid(dollar, 32));
            return false;
        }
        flush();
        m_pieces.append(piece);
    }
    literal += text.midRef(position);
    flush();
    return true;
}
