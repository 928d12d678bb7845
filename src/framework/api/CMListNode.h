#pragma once

#include <QVariantHash>
#include <QVector>

#include <functional>

#include "CMUINode.h"

/// A list of rows. A row is a hash from role name to value; roles that it leaves out are null, its permission is
/// "default" and its path is the list's with ".row" and the index unless it says otherwise. Rows are either held here
/// or generated on demand (for lists too long to hold).
class CMListNode : public CMUINode {
public:
    using Row = QVariantHash;
    /// Makes row `index`. Called only for rows that are read.
    using RowSource = std::function<Row(int index)>;

    static CMListNode* create(CMNodes* nodes, const CMPath& path);

    int rowsCount() const;
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
    void getRows(int from, int to, qint64 version, const QStringList& roles, CMReply<ZarkRowsRoles> reply) override;

private:
    CMListNode(CMNodeTree* tree, const CMPath& path) : CMUINode(tree, path) { }

    QVariantList rowRoles(int index, const QStringList& roles) const; ///< One value a role, in their order.

    QVector<Row> m_rows;
    RowSource m_source;
    int m_sourceCount = 0;
};
