#include "CMStore.h"

#include <QMutex>

#include <utility>

#include "CMDatabase.h"

/// The store's other half, which lives on its thread. Replies never cross threads: only values go over, and one
/// sentence a write comes back, in the same order.
class CMStore::Writer : public QObject {
public:
    explicit Writer(CMStore* store) : m_store(store) { }

    CMDatabase& database() { return m_database; }

    /// From the store's thread.
    void enqueue(const CMPath& path, const ZarkValue& value)
    {
        const QMutexLocker locker(&m_mutex);
        m_waiting.append({ path, value });
        if (m_waiting.size() == 1)
            QMetaObject::invokeMethod(
                this, [this] { commitWaiting(); }, Qt::QueuedConnection);
    }
    QVector<QString> takeResults()
    {
        const QMutexLocker locker(&m_mutex);
        return std::exchange(m_results, {});
    }

    /// On the writer's thread, or when that has ended.
    void commitWaiting()
    {
        QVector<CMDatabase::Write> writes;
        {
            const QMutexLocker locker(&m_mutex);
            writes = std::exchange(m_waiting, {});
        }
        if (writes.isEmpty())
            return;
        const QVector<QString> results = m_database.commit(writes);
        const QMutexLocker locker(&m_mutex);
        // The store joins this thread before it goes, so it is there.
        if (m_results.isEmpty())
            QMetaObject::invokeMethod(
                m_store, [store = m_store] { store->deliver(); }, Qt::QueuedConnection);
        m_results += results;
    }

private:
    CMStore* m_store;
    CMDatabase m_database;
    QMutex m_mutex;
    QVector<CMDatabase::Write> m_waiting;
    QVector<QString> m_results;
};

CMStore::CMStore(QObject* parent) : QObject(parent), m_writer(std::make_unique<Writer>(this)) { }

CMStore::~CMStore()
{
    m_thread.quit();
    m_thread.wait();
    m_writer->commitWaiting();
    deliver();
}

bool CMStore::open(const QString& file, QString* error)
{
    Q_ASSERT_X(!m_isOpen, "CMStore::open", "opened twice");
    CMDatabase& database = m_writer->database();
    if (!database.open(file, error) || !database.readAll(&m_values, error))
        return false;
    m_thread.setObjectName(QStringLiteral("CMStore"));
    m_writer->moveToThread(&m_thread);
    m_isOpen = true;
    startWriting();
    return true;
}

// Asked for again with each write: a system that has no thread to give at the start may have one later.
QString CMStore::startWriting()
{
    if (!m_isOpen)
        return QStringLiteral("No database is open.");
    if (!m_thread.isRunning())
        m_thread.start();
    return m_thread.isRunning() ? QString() : QStringLiteral("The value was not stored: there is no thread to be had.");
}

void CMStore::write(const CMPath& path, const ZarkValue& value, CMVoidReply reply)
{
    const QString failure = startWriting();
    if (!failure.isEmpty())
        return reply.fail(CMError(CMError::StoreFailed, failure));
    m_pending.push_back({ path, value, reply });
    m_writer->enqueue(path, value);
}

void CMStore::deliver()
{
    const QVector<QString> results = m_writer->takeResults();
    for (const QString& error : results) {
        Pending done = m_pending.front();
        m_pending.pop_front();
        if (!error.isEmpty()) {
            done.reply.fail(CMError(CMError::StoreFailed, QStringLiteral("The value was not stored: %1").arg(error)));
            continue;
        }
        m_values.insert(done.path, done.value);
        done.reply.finish();
    }
}
