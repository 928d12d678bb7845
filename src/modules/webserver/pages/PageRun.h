#pragma once

#include <QHash>
#include <QSharedPointer>
#include <QStringList>
#include <QVector>

#include "Page.h"

/// What a page wants to know: roles of a node, or of a range of rows.
struct PageRead {
    QString path;
    QStringList roles;
    int from = -1; ///< -1: of the node itself.
    int to = -1; ///< Inclusive.

    bool isRows() const { return from >= 0; }
    bool operator==(const PageRead& other) const
    {
        return path == other.path && roles == other.roles && from == other.from && to == other.to;
    }
};

inline uint qHash(const PageRead& read, uint seed = 0)
{
    return qHash(read.path, seed) ^ qHash(read.roles, seed) ^ uint(read.from);
}

struct PageAnswer {
    QString error; ///< Empty: there is none.
    QVector<QStringList> rows; ///< Texts in the order of the roles; one row for a node itself.
    int rowsCount = 0; ///< Of the whole list.
    QString notice = {}; ///< What is wrong with some of the rows; the others are shown. Empty: nothing.
};

/// One rendering of a page, from command to command: it asks for what it needs and goes on when it has it. Knows
/// neither the framework nor HTTP.
///
///     run() → Reading: answer() for each of reads(), Setting: setDone(), Paused: nothing → run() … → Finished
class PageRun {
public:
    enum State {
        Finished, ///< output() is the page.
        Reading,
        Setting,
        Paused, ///< Enough for one turn of the event loop.
        TooLong, ///< The page would be longer than MaximumBytes, or does not come to an end.
    };
    struct Input {
        bool isPost = false; ///< Only then it sets something.
        QHash<QString, QString> form;
        QHash<QString, QString> query;
    };
    struct Write {
        QString path;
        QString text;
    };

    static constexpr int MaximumBytes = 4 * 1024 * 1024;
    static constexpr int MaximumReads = 2000; ///< What a page reads beyond fails.

    PageRun(const QSharedPointer<const Page>& page, const Input& input) : m_page(page), m_input(input) { }

    State run();
    const QVector<PageRead>& reads() const { return m_reads; } ///< Each once.
    void answer(const PageRead& read, const PageAnswer& answer);
    const Write& write() const { return m_write; }
    /// `error` is empty when it was written. Nothing else is written after an error.
    void setDone(const QString& error);

    const QByteArray& output() const { return m_output; }
    /// Something was written, and nothing failed to be.
    bool hasWritten() const { return m_hasWritten && !m_hasFailed; }

private:
    /// A block of rows under way.
    struct Block {
        int command;
        PageAnswer answer;
        int row;
    };
    enum Step { Next, Stay };

    Step step(const PageCommand& command);
    Step get(const PageCommand& command);
    Step set(const PageCommand& command);
    Step beginRows(const PageCommand& command);
    void endRows(const PageCommand& command);
    Step decide(const PageCommand& command);

    const PageAnswer* find(const PageRead& read);
    const PageAnswer* findNode(const PageCommand& command);
    void collect();
    bool wouldRead(const PageCommand& command, PageRead* read) const;
    PageRead readOfNode(const PageCommand& command) const;
    PageRead readOfRows(const PageCommand& command, QString* problem) const;
    void noteRows(const PageRead& read, const PageAnswer& answer);
    bool wasSent(const PageText& text) const;

    QString text(const PageText& text) const;
    QString variable(const PageText::Piece& piece) const;
    QString rowText(const QString& role) const;
    void put(const PageCommand& command, const QString& text);
    void report(const PageCommand& command, const QString& path, const QString& error);

    QSharedPointer<const Page> m_page;
    Input m_input;
    int m_position = 0;
    int m_steps = 0;
    State m_state = Paused;
    QByteArray m_output;
    QString m_error;
    QVector<Block> m_blocks;
    QHash<QString, QString> m_rows; ///< The variables of the latest rows.
    QHash<PageRead, PageAnswer> m_answers; ///< A node is read once, until something is written.
    int m_heldTexts = 0;
    QVector<PageRead> m_reads;
    int m_readCount = 0;
    Write m_write;
    bool m_hasWritten = false;
    bool m_hasFailed = false;
};
