#pragma once

#include "HtmlContext.h"
#include "Page.h"

/// Makes commands of a page's text. What is no command is a literal, byte for byte. Use once.
class PageParser {
public:
    explicit PageParser(const QByteArray& text) : m_text(text) { }

    /// False, with the first thing that is wrong in fault(), for anything that is not what docs/pages.md says.
    bool parse(QVector<PageCommand>* commands);
    const PageFault& fault() const { return m_fault; }

private:
    /// A block that is not closed yet.
    struct Block {
        int command; ///< If or Rows.
        int elseCommand; ///< -1 without one.
        HtmlContext began;
        HtmlContext ended; ///< The first branch, once there is an Else.
    };

    void readLiteral(int end);
    void readCommand();
    bool readAttributes(PageCommand* command);
    bool readAttribute(PageCommand* command);
    bool checkAttributes(const PageCommand& command);
    bool checkPlace(PageCommand* command);
    bool useRoles(const PageCommand& command);
    bool useRole(const QString& role);
    bool follow(PageCommand* command);
    bool turn(const PageCommand& command);
    bool close(PageCommand::Kind opener, PageCommand* closer);
    QByteArray readWord();
    void skipBlanks();
    void advance(int offset);
    bool fail(const QString& text);
    bool failAt(const PageCommand& command, const QString& text);

    QByteArray m_text;
    int m_position = 0;
    int m_line = 1;
    int m_column = 1;
    HtmlContext m_html;
    QVector<Block> m_blocks;
    QVector<PageCommand> m_commands;
    PageFault m_fault;
};
