#pragma once

#include <QVariant>
#include <QVector>

#include <functional>

#include "CMError.h"
#include "CMPath.h"
#include "CMReply.h"
#include "TrString.h"
#include "ZarkPermission.h"
#include "ZarkRowEvent.h"
#include "ZarkRowsRoles.h"
#include "ZarkValue.h"

class CMNodeHome;

/// A node of the tree and the base of all kinds; by itself a container, whose rows are its children.
///
/// Owned by its CMNodes. Setters tell the tree's listeners when something really changed.
class CMUINode {
public:
    virtual ~CMUINode();
    CMUINode(const CMUINode&) = delete;
    CMUINode& operator=(const CMUINode&) = delete;

    const CMPath& path() const { return m_path; }
    CMNodeHome* tree() const { return m_tree; }

    TrString title() const; ///< The last segment of the path unless set.
    void setTitle(const TrString& title);
    const TrString& description() const { return m_description; }
    void setDescription(const TrString& description);
    ZarkPermission::Enum permission() const { return m_permission; }
    void setPermission(ZarkPermission::Enum permission);
    bool isModifiable() const { return m_modifiable; } ///< By clients.
    void setModifiable(bool modifiable);
    const QString& icon() const { return m_icon; }
    void setIcon(const QString& icon);
    /// {"minimum", "maximum", "step", "unit", "options"}, what applies.
    const QVariantHash& edit() const { return m_edit; }
    virtual void setEdit(const QVariantHash& edit);
    qint64 timestamp() const { return m_timestamp; } ///< Last change of the value or rows, ms since the epoch.
    void touch(); ///< Sets the timestamp to now.

    /// "container", "value", "list", "action" or "stream".
    virtual QString nodeType() const;
    /// The value of role `value`; invalid for a kind of node that has none.
    virtual QVariant valueRole() const;
    /// One role's value, null where this node has none; false in `known` for a name that is no role.
    QVariant role(const QString& name, bool* known) const;

    /// What CMAbstractWorker::getRows() and invoke() say. The base refuses to be set.
    void getRows(int from, int to, qint64 version, const QStringList& roles, CMReply<ZarkRowsRoles> reply);
    virtual void invoke(const QVariant& value, const QString& role, CMReply<QVariant> reply);

    /// Called just before the node is read, and when the number of listeners turns from or to zero: for nodes whose
    /// value costs something and is refreshed only while somebody wants it.
    void setDemandHook(const std::function<void()>& hook) { m_demandHook = hook; }
    void demand() const;
    bool isWatched() const;

    const QVector<CMUINode*>& children() const; ///< Until the next change of the tree.
    virtual int rowsCount() const; ///< Of the rows that getRows() answers, which are the children unless overridden.
    /// Grows with every change of the rows and is below 2^53. No list had it before: neither another node that was at
    /// this path nor, as it follows the clock, this one before the process was started again.
    qint64 rowsVersion() const;

    /// The tree ends before the node.
    void forgetTree() { m_tree = nullptr; }

protected:
    CMUINode(CMNodeHome* tree, const CMPath& path);
    void changed(const QStringList& roles);
    /// As CMNodeTree::changeRows().
    void bumpRows(const QList<ZarkRowEvent>& events);
    virtual bool hasRows() const; ///< Containers and what has nodes below it, unless overridden.
    /// Appends the rows from `from` to `last`, which there are: one value a role each. The roles are known ones.
    virtual void appendRows(int from, int last, const QStringList& roles, QVector<QVariant>* values) const;

private:
    /// Roles of this node as ZarkRowsRoles::roles() holds them; false when a name is no role.
    bool ownRoles(const QStringList& roles, QVariantHash* values) const;
    /// Checks a getRows() request against a list of `count` rows, cuts `to` to the last row and fills everything of the
    /// answer but the rows. The error says what is wrong with the request.
    CMError beginRows(
        int count, int from, qint64 version, const QStringList& roles, int* to, ZarkRowsRoles* answer) const;

    CMNodeHome* m_tree;
    CMPath m_path;
    TrString m_title; // Null: the path's. Most nodes get another at once.
    TrString m_description;
    QString m_icon;
    QVariantHash m_edit;
    std::function<void()> m_demandHook;
    qint64 m_timestamp = 0;
    ZarkPermission::Enum m_permission = ZarkPermission::Default;
    bool m_modifiable = false;
};
