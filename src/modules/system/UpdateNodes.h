#pragma once

#include <QObject>
#include <QTimer>

#include <memory>

#include "CMReply.h"
#include "CMUpdateNode.h"
#include "ImageTransfer.h"

class CMNodes;
class CMValueNode;

/// "system:update": takes an image, keeps the last good one in a directory, and shows what becomes of it.
///
/// state: "idle", "receiving", "ready" (the image is kept) or "failed"; received and progress (percent, 0 while the
/// size is unknown) of the transfer; name, size and sha256 of the image that is kept; error of the last transfer.
class UpdateNodes : public QObject {
public:
    /// The nodes belong to `nodes`, which outlives this object. An empty `directory` takes no images.
    UpdateNodes(CMNodes* nodes, const QString& directory, QObject* parent = nullptr);
    ~UpdateNodes() override;

private:
    class Update;

    CMValueNode* add(CMNodes* nodes, const char* name, const char* title, const ZarkValue& initial);
    std::unique_ptr<CMUpdate> begin(const QString& fileName, qint64 bytes, CMError* error);
    void finish(quint64 number, const QByteArray& sha256, CMReply<CMUpdateResult> reply);
    void showKept(const QString& fileName, const ImageTransfer::Outcome& kept);
    void showProgress();
    void abandon(quint64 number);
    void done(quint64 number, const ImageTransfer::Outcome& outcome);

    QString m_directory;
    CMUpdateNode* m_node;
    CMValueNode* m_state = nullptr;
    CMValueNode* m_received = nullptr;
    CMValueNode* m_progress = nullptr;
    CMValueNode* m_name = nullptr;
    CMValueNode* m_size = nullptr;
    CMValueNode* m_sum = nullptr;
    CMValueNode* m_error = nullptr;
    QTimer m_timer;
    QString m_fileName; ///< Of the transfer.
    quint64 m_number = 0; ///< Of the transfer, or of the last one.
    QString m_lastError;
    bool m_isAbandoned = false; ///< The transfer's writer has gone; it is only to be ended.
    bool m_isFinishing = false; ///< All of it was written.
    qint64 m_expectedBytes = -1;
    std::unique_ptr<ImageTransfer> m_transfer;
    CMReply<CMUpdateResult> m_reply;
};
