#pragma once

#include <QString>
#include <QVector>

/// The value of a command's attribute: text and variables, "$form.name", "$query.name", "$row.role", "$rows.next",
/// "$error"; "$$" is a dollar.
class PageText {
public:
    enum Source { Literal, Error, Form, Query, Row, Rows };
    struct Piece {
        Source source;
        QString text; ///< The literal, or the variable's name.
    };

    /// False, with a sentence in `problem`, for a variable that there is not.
    bool parse(const QString& text, QString* problem);
    const QVector<Piece>& pieces() const { return m_pieces; }
    bool isLiteral() const { return m_pieces.isEmpty() || (m_pieces.size() == 1 && m_pieces[0].source == Literal); }
    QString literal() const { return m_pieces.isEmpty() ? QString() : m_pieces[0].text; }

private:
    QVector<Piece> m_pieces;
};
