#include <QFile>
#include <QThread>
#include <QTimer>

#include "CMNodesWorker.h"
#include "CMRoot.h"
#include "CMValueNode.h"

namespace {

ZarkValue valueAt(const QString& path)
{
    return ZarkValue(CMRoot()->getValue(CMPath::fromEncoded(path)));
}

/// Writes what the host does to it to "<state>/record", and serves what "test:addresses" and "test:errors" say.
class RecorderWorker : public CMNodesWorker {
public:
    explicit RecorderWorker(const QVariantHash& arguments)
        : CMNodesWorker(QStringLiteral(RECORDER_NAME), arguments),
          m_record(arguments.value(QStringLiteral("state")).toString() + QStringLiteral("/record"))
    {
        record("made with " + QByteArray::number(valueAt(QStringLiteral("test:value")).i32()));
        publish(QStringLiteral("addresses"));
        publish(QStringLiteral("errors"));
    }
    ~RecorderWorker() override { record("destroyed"); }

    void reload() override { record("reloads"); }
    void shutDown() override
    {
        record("shuts down");
        if (valueAt(QStringLiteral("test:hangs")).bool_())
            QThread::sleep(20);
        QTimer::singleShot(20, this, [this] { record("answers"); });
    }

private:
    void publish(const QString& name)
    {
        CMValueNode* node = makeStatusNode(name);
        // Servers start from the event loop too.
        QTimer::singleShot(0, this, [node, name] {
            if (node)
                node->setMeasured(valueAt(QStringLiteral("test:") + name));
        });
    }
    void record(const QByteArray& event)
    {
        QFile file(m_record);
        if (file.open(QFile::Append))
            file.write(RECORDER_NAME " " + event + '\n');
    }

    QString m_record;
};

} // namespace

extern "C" Q_DECL_EXPORT CMNodesWorker* worker_create(const QVariantHash& arguments)
{
    return new RecorderWorker(arguments);
}
