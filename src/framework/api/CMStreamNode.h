#pragma once

#include <functional>

#include "CMUINode.h"

class CMNodes;

/// A node that can be read as a stream of bytes.
class CMStreamNode : public CMUINode {
public:
    using Open = std::function<int()>;

    static CMStreamNode* create(CMNodes* nodes, const CMPath& path, const QString& mimeType);

    const QString& mimeType() const { return m_mimeType; }
    void setOpen(const Open& open) { m_open = open; }
    /// A file descriptor of a pipe's reading end, non-blocking and close-on-exec, that the caller closes; -1 when the
    /// stream cannot be opened. The writer ends when the reader closes.
    int openPipe() const { return m_open ? m_open() : -1; }

    QString nodeType() const override;

private:
    CMStreamNode(CMNodeHome* tree, const CMPath& path, const QString& mimeType)
        : CMUINode(tree, path), m_mimeType(mimeType)
    {
    }

    QString m_mimeType;
    Open m_open;
};
