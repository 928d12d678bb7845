#include "UpdateNodes.h"

#include <QDir>
#include <QPointer>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "CMNodes.h"
#include "CMValueNode.h"
#include "SystemLog.h"
#include "ZarkPaths.h"

namespace {

constexpr int ProgressMilliseconds = 200;
constexpr int PipeBytes = 256 * 1024;

QString hex(const QByteArray& sum)
{
    return QString::fromLatin1(sum.toHex());
}

} // namespace

class UpdateNodes::Update : public CMUpdate {
public:
    Update(UpdateNodes* nodes, quint64 number, int writeEnd)
        : m_nodes(nodes), m_number(number), m_writeEnd(writeEnd) { }
    ~Update() override
    {
        closePipe();
        if (m_nodes)
            m_nodes->abandon(m_number); // Nothing happens when it was finished.
    }

    int descriptor() const override { return m_writeEnd; }
    void finish(const QByteArray& sha256, CMReply<CMUpdateResult> reply) override
    {
        if (m_nodes)
            m_nodes->finish(m_number, sha256, reply);
        else
            reply.fail(CMError(CMError::Abandoned, "The device stops."));
        closePipe();
    }

private:
    void closePipe()
    {
        if (m_writeEnd >= 0)
            close(m_writeEnd);
        m_writeEnd = -1;
    }

    QPointer<UpdateNodes> m_nodes;
    quint64 m_number;
    int m_writeEnd;
};

UpdateNodes::UpdateNodes(CMNodes* nodes, const QString& directory, QObject* parent)
    : QObject(parent), m_directory(directory), m_node(CMUpdateNode::create(nodes, ZarkFirmwareUpdatePath()))
{
    if (!m_node || directory.isEmpty())
        return;
    m_node->setTitle("Update");
    m_node->setDescription("Takes a firmware image: POST /firmware/update.");
    m_state = add(nodes, "state", "State", ZarkValue::fromString(QStringLiteral("idle")));
    m_received = add(nodes, "received", "Received", ZarkValue::fromI64(0));
    m_progress = add(nodes, "progress", "Progress", ZarkValue::fromI32(0));
    m_name = add(nodes, "name", "File name", ZarkValue::fromString({}));
    m_size = add(nodes, "size", "Size", ZarkValue::fromI64(0));
    m_sum = add(nodes, "sha256", "SHA-256", ZarkValue::fromString({}));
    m_error = add(nodes, "error", "Error", ZarkValue::fromString({}));
    if (!m_state || !m_received || !m_progress || !m_name || !m_size || !m_sum || !m_error)
        return; // Logged; the tree declares something else there.
    QString fileName;
    const ImageTransfer::Outcome kept = ImageTransfer::kept(directory, &fileName);
    showKept(fileName, kept);
    m_timer.setInterval(ProgressMilliseconds);
    connect(&m_timer, &QTimer::timeout, this, &UpdateNodes::showProgress);
    m_node->setBusy([this] { return m_transfer && !m_isAbandoned; });
    m_node->setBegin([this](const QString& name, qint64 bytes, CMError* error) { return begin(name, bytes, error); });
}

UpdateNodes::~UpdateNodes()
{
    if (m_node) {
        m_node->setBusy({});
        m_node->setBegin({});
    }
}

CMValueNode* UpdateNodes::add(CMNodes* nodes, const char* name, const char* title, const ZarkValue& initial)
{
    const QString path = ZarkFirmwareUpdatePath().toEncoded() + QLatin1Char('/') + QLatin1String(name);
    CMValueNode* node = CMValueNode::create(nodes, CMPath::fromEncoded(path), initial);
    if (node)
        node->setTitle(title);
    return node;
}

std::unique_ptr<CMUpdate> UpdateNodes::begin(const QString& fileName, qint64 bytes, CMError* error)
{
    int ends[2] = { -1, -1 };
    if (m_node->isBusy()) {
        *error = CMError(CMError::Busy, "Another image is on its way.");
        return nullptr;
    }
    if (!QDir().mkpath(m_directory) || pipe2(ends, O_CLOEXEC) != 0) {
        *error = CMError(CMError::Failed, TrString(QString::fromLocal8Bit(strerror(errno))));
        return nullptr;
    }
    m_transfer.reset(); // One that nobody writes any more: its thread has little left to do.
    fcntl(ends[1], F_SETFL, O_NONBLOCK); // The reader, on its own thread, may block.
    fcntl(ends[1], F_SETPIPE_SZ, PipeBytes);
    m_fileName = fileName;
    m_expectedBytes = bytes;
    const quint64 number = ++m_number;
    m_isAbandoned = false;
    m_isFinishing = false;
    m_reply = CMReply<CMUpdateResult>();
    m_transfer = std::make_unique<ImageTransfer>(
        m_directory, fileName, ends[0], [this, number](const ImageTransfer::Outcome& outcome) {
            // The destructor waits for the thread, and what is posted to a dead receiver is dropped.
            QMetaObject::invokeMethod(
                this, [this, number, outcome] { done(number, outcome); }, Qt::QueuedConnection);
        });
    m_state->setMeasured(ZarkValue::fromString(QStringLiteral("receiving")));
    m_error->setMeasured(ZarkValue::fromString({}));
    showProgress();
    m_timer.start();
    dbglog_info(systemLog(), "Receiving an image");
    return std::make_unique<Update>(this, m_number, ends[1]);
}

void UpdateNodes::finish(quint64 number, const QByteArray& sha256, CMReply<CMUpdateResult> reply)
{
    // The reader may have given up before: then another image may be on its way already, or kept.
    if (number != m_number)
        return reply.fail(CMError(CMError::Failed, "The image was not kept."));
    if (!m_transfer)
        return reply.fail(CMError(CMError::Failed, TrString(m_lastError)));
    m_reply = reply;
    m_isFinishing = true;
    m_transfer->markWhole(sha256);
}

void UpdateNodes::showProgress()
{
    const qint64 received = m_transfer ? m_transfer->receivedBytes() : 0;
    const qint64 percent = m_expectedBytes > 0 ? std::min<qint64>(100, received * 100 / m_expectedBytes) : 0;
    m_received->setMeasured(ZarkValue::fromI64(received));
    m_progress->setMeasured(ZarkValue::fromI32(static_cast<int>(percent)));
}

void UpdateNodes::showKept(const QString& fileName, const ImageTransfer::Outcome& kept)
{
    m_name->setMeasured(ZarkValue::fromString(fileName));
    m_size->setMeasured(ZarkValue::fromI64(kept.bytes));
    m_sum->setMeasured(ZarkValue::fromString(hex(kept.sha256)));
    if (!kept.sha256.isEmpty())
        m_state->setMeasured(ZarkValue::fromString(QStringLiteral("ready")));
}

void UpdateNodes::abandon(quint64 number)
{
    m_isAbandoned = m_isAbandoned || (number == m_number && m_transfer && !m_isFinishing);
}

void UpdateNodes::done(quint64 number, const ImageTransfer::Outcome& outcome)
{
    if (number != m_number || !m_transfer)
        return; // Another came in place of one that had been abandoned.
    m_timer.stop();
    m_expectedBytes = outcome.error.isEmpty() ? outcome.bytes : m_expectedBytes;
    showProgress();
    m_transfer.reset();
    m_lastError = outcome.error;
    m_error->setMeasured(ZarkValue::fromString(outcome.error));
    CMReply<CMUpdateResult> reply = std::exchange(m_reply, {});
    if (!outcome.error.isEmpty()) {
        dbglog_error(systemLog(), "No image was kept: " << outcome.error);
        m_state->setMeasured(ZarkValue::fromString(QStringLiteral("failed")));
        return reply.fail(CMError(CMError::Failed, TrString(outcome.error)));
    }
    dbglog_info(systemLog(), "Keeping an image of " << outcome.bytes << " bytes, SHA-256 " << hex(outcome.sha256));
    showKept(m_fileName, outcome);
    reply.finish({ outcome.bytes, outcome.sha256 });
}
