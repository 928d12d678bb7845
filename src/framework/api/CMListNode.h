#pragma once

#include <QVariantHash>
#include <QVector>

#include <functional>

#include "CMUINode.h"

class CMNodes;

/// A list of rows. A row is a hash from role name to value; roles that it leaves out are null, its permission is
/// "default" and its path is the list's with ".row" and the index unless it says otherwise. Rows are either held here
/// or generated on demand (for lists too long to hold).
class CMListNode : public CMUINode {
public:
    using Row = QVariantHash;
    /// Makes one role's value of row `index`; an invalid QVariant for a role that the row leaves out. Called only for
    /// what is read.
    using RowSource = std::function<QVariant(int index, const QString& role)>;

    static CMListNode* create(CMNodes* nodes, const CMPath& path);

    int rowsCount() const override;
    Row row(int index) const; ///< Empty when there is no such row.

    /// Replaces all rows. Listeners get a reset.
    void setRows(const QVector<Row>& rows);
    /// Replaces all rows by `count` generated ones, which cannot be changed one by one.
    void setRowSource(int count, const RowSource& source);

    // Each changes the version. False, and nothing changed, for an index that the list does not have.
    bool insertRow(int index, const Row& row); ///< 0 to rowsCount().
    bool removeRow(int index);
    bool updateRow(int index, const Row& row);
    bool moveRow(int index, int toIndex); ///< `toIndex` counts after the removal.

    QString nodeType() const override;

protected:
    bool hasRows() const override { return true; }
    void appendRows(int from, int last, const QStringList& roles, QVector<QVariant>* values) const override;

private:
    CMListNode(CMNodeHome* tree, const CMPath& path) : CMUINode(tree, path) { }

    /// What a row that leaves the role out has.
    QVariant defaultOf(int index, const QString& role) const;

    QVector<Row> m_rows;
    RowSource m_source;
    int m_sourceCount = 0;
};
