#pragma once

#include <functional>
#include <memory>

#include "CMUINode.h"

class CMNodes;

/// What the reader of an update pipe made of an image.
struct CMUpdateResult {
    qint64 bytes = 0;
    QByteArray sha256; ///< 32 bytes.
};

/// One image on its way into the device. Destroyed before finish(), it is incomplete: the reader drops it.
class CMUpdate {
public:
    virtual ~CMUpdate() = default;
    /// The writing end of a pipe, non-blocking; it stays this object's. A write fails with EPIPE when the reader has
    /// given up (SIGPIPE must be ignored); finish() then tells why.
    virtual int descriptor() const = 0;
    /// The whole image has been written. `sha256`, of 32 bytes or empty, is what its sum must be. Closes the pipe. The
    /// answer comes when the image is on disk, or with the reason why it never will be.
    virtual void finish(const QByteArray& sha256, CMReply<CMUpdateResult> reply) = 0;
};

/// A node that takes an image, one at a time; its children tell how far it has come.
class CMUpdateNode : public CMUINode {
public:
    /// `bytes`: of the image, -1 when that is not known yet. Null with `error` set when it cannot begin: CMError::Busy
    /// while another image is on its way.
    using Begin = std::function<std::unique_ptr<CMUpdate>(const QString& fileName, qint64 bytes, CMError* error)>;

    /// Null as CMContainerNode::create(). Permission: protected.
    static CMUpdateNode* create(CMNodes* nodes, const CMPath& path);

    void setBegin(const Begin& begin) { m_begin = begin; }
    /// Whether begin() would fail with CMError::Busy now: asked before a body is let come.
    void setBusy(const std::function<bool()>& busy) { m_busy = busy; }
    bool isBusy() const { return m_busy && m_busy(); }
    std::unique_ptr<CMUpdate> begin(const QString& fileName, qint64 bytes, CMError* error) const;

private:
    CMUpdateNode(CMNodeHome* tree, const CMPath& path) : CMUINode(tree, path) { }

    Begin m_begin;
    std::function<bool()> m_busy;
};
