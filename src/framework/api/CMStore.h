#pragma once

#include <QHash>
#include <QObject>
#include <QString>
#include <QThread>

#include <deque>
#include <memory>

#include "CMPath.h"
#include "CMReply.h"
#include "ZarkValue.h"

/// Where persistent values live: an SQLite database in WAL mode with full synchronisation, mode 0600.
///
/// Values are read once, at the start. Writes go through a thread of their own, so that a slow disk never holds up the
/// event loop; writes that wait are committed together. A write is on disk before its reply is sent, and replies come
/// in the order of the writes. Killing the process at any moment loses no answered write.
class CMStore : public QObject {
    Q_OBJECT
public:
    explicit CMStore(QObject* parent = nullptr);
    /// Commits what waits, then closes.
    ~CMStore() override;

    /// Opens or makes `file` and reads every value. A damaged database is renamed to "<file>.damaged-<date>", logged
    /// as an error, and replaced by an empty one. On a full disk the store opens all the same, and writes fail until
    /// there is room. False, with a sentence in `error`, when no database can be had (directory not writable, locked
    /// by another host).
    bool open(const QString& file, QString* error);

    /// The stored value; invalid when there is none.
    ZarkValue value(const CMPath& path) const { return m_values.value(path); }
    /// Answers CMError::StoreFailed when the disk refuses, or the system has no thread to give; the stored value is
    /// then the earlier one.
    void write(const CMPath& path, const ZarkValue& value, CMVoidReply reply);
    /// No write waits for its answer.
    bool isIdle() const { return m_pending.empty(); }

private:
    class Writer;
    /// A write whose result is not known yet.
    struct Pending {
        CMPath path;
        ZarkValue value;
        CMVoidReply reply;
    };

    QString startWriting(); ///< Why nothing can be written; empty when it can.
    void deliver(); ///< Answers the writes whose results have come.

    QHash<CMPath, ZarkValue> m_values;
    std::deque<Pending> m_pending; ///< In the order in which the writer answers.
    bool m_isOpen = false;
    QThread m_thread;
    std::unique_ptr<Writer> m_writer;
};
