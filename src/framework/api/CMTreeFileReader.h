#pragma once

#include <QSet>
#include <QVariantHash>

#include "CMListNode.h"
#include "ZarkError.h"

class CMNodes;

/// Makes the nodes that the JSON of a tree file declares. Stops at the first fault and keeps its line.
class CMTreeFileReader {
public:
    explicit CMTreeFileReader(CMNodes* nodes) : m_nodes(nodes) { }

    /// `json` was parsed with ZarkJson::RecordLines. The error is empty when every node was made.
    ZarkError read(const QVariant& json);

private:
    void readNode(const QVariantHash& object);
    CMUINode* makeNode(const QVariantHash& object, const CMPath& path, const QString& type);
    CMUINode* makeValue(const QVariantHash& object, const CMPath& path);
    CMUINode* makeList(const QVariantHash& object, const CMPath& path);
    CMUINode* makeAction(const QVariantHash& object, const CMPath& path);
    void readCommon(const QVariantHash& object, CMUINode* node);
    bool checkCommon(const QVariantHash& object);
    ZarkValue readValue(const QVariantHash& owner);
    QVariantHash readEdit(const QVariantHash& owner, ZarkValueType::Enum type);
    bool checkOption(const QVariant& option, const QVariantHash& edit, ZarkValueType::Enum type);
    CMListNode::Row readRow(const QVariant& json, const QVariantHash& list);
    void fillGenerated(CMListNode* node, const QVariantHash& rows);

    // Each records a fault at the line of `object` and returns false, or returns true.
    bool fail(const QVariantHash& object, const QString& what);
    bool allow(const QVariantHash& object, const QSet<QString>& keys);
    bool expect(const QVariantHash& object, const QString& key, QMetaType::Type type, const char* kind);
    bool failed() const { return !m_error.isEmpty(); }

    CMNodes* m_nodes;
    ZarkError m_error;
};
