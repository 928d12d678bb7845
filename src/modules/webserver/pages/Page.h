#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

#include "HtmlContext.h"
#include "PageText.h"

/// One step of a page: a literal, or a command. A page is a list of them, with jumps by index, so that it can be run
/// step by step and left at any of them.
struct PageCommand {
    enum Kind { Literal, Get, Echo, Set, Rows, Row, EndRows, If, Else, EndIf, Include };

    Kind kind = Literal;
    HtmlPlace place = HtmlPlace::Nowhere;
    /// Another command: of If, where it goes on when it does not hold; of Else, which is met at the end of the first
    /// branch, and of Rows, the end of the block; of EndIf and EndRows, its beginning.
    int target = -1;
    int line = 0; ///< From 1, as the column.
    int column = 0;
    QByteArray literal;
    QStringList roles; ///< Of Rows: what its rows are asked for.
    QMap<QString, PageText> attributes;

    bool has(const char* name) const { return attributes.contains(QLatin1String(name)); }
    PageText attribute(const char* name) const { return attributes.value(QLatin1String(name)); }
};

struct Page {
    QVector<PageCommand> commands;
    int bytes = 0; ///< Of the text it was made of.
};

/// What is wrong with a page, for the log.
struct PageFault {
    QString file;
    int line = 0;
    int column = 0; ///< In characters, from 1.
    QString text; ///< Empty: nothing is wrong.

    bool isEmpty() const { return text.isEmpty(); }
};
