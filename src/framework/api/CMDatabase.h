#pragma once

#include <QHash>
#include <QString>
#include <QVector>

#include "CMPath.h"
#include "ZarkValue.h"

struct sqlite3;
struct sqlite3_stmt;

/// The database file under a CMStore: one table from path to the JSON of a typed value.
///
/// Opened on one thread, may then be written from another, never from two at once. Holds a lock on "<file>.lock" as
/// long as it is open, so that a second host on the same file is refused. On a disk that is full it opens what can be
/// read, or nothing; each write then tries again.
class CMDatabase {
public:
    struct Write {
        CMPath path;
        ZarkValue value;
    };

    CMDatabase() = default;
    ~CMDatabase();
    CMDatabase(const CMDatabase&) = delete;
    CMDatabase& operator=(const CMDatabase&) = delete;

    /// As CMStore::open().
    bool open(const QString& file, QString* error);
    /// Every stored value; one that makes no sense is logged and left out. False, with a sentence in `error`, when the
    /// disk refuses.
    bool readAll(QHash<CMPath, ZarkValue>* values, QString* error);
    /// Commits all writes in one transaction, each in its own if that fails. One sentence a write; empty: on disk.
    QVector<QString> commit(const QVector<Write>& writes);

private:
    enum class Opening {
        Opened,
        Damaged,
        NoRoom, ///< The disk is full.
        Failed,
    };

    Opening tryOpen(QString* error);
    Opening lock(QString* error);
    void unlock();
    Opening openFile(QString* error);
    Opening connectFile(QString* error);
    Opening prepare(QString* error);
    Opening checkOwner(QString* error);
    Opening checkPages(QString* error);
    Opening failed(QString* error) const; ///< What SQLite's last result means for opening.
    Opening systemFailed(const QString& file, QString* error) const; ///< The same of the last system call.
    bool isOutOfRoom() const;
    bool isFresh();
    bool makeTables();
    int pragma(const char* name);
    bool run(const char* sql);
    bool put(const Write& write);
    QString putAlone(const Write& write);
    QString message() const;
    void close();

    QString m_file;
    bool m_isIndexShared = true;
    sqlite3* m_connection = nullptr;
    sqlite3_stmt* m_put = nullptr;
    int m_lock = -1;
};
