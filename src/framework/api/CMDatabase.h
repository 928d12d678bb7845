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
/// long as it is open, so that a second host on the same file is refused.
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
    /// Every stored value; one that cannot be read is logged and left out.
    QHash<CMPath, ZarkValue> readAll();
    /// Commits all writes in one transaction, each in its own if that fails. One sentence a write; empty: on disk.
    QVector<QString> commit(const QVector<Write>& writes);

private:
    enum class Opening { Opened, Damaged, Failed };

    bool lock(const QString& file, QString* error);
    Opening openFile(const QString& file, QString* error);
    Opening prepare(QString* error);
    Opening checkOwner(QString* error);
    Opening checkPages(QString* error);
    Opening failed(QString* error) const; ///< What the last result means for opening.
    bool isFresh();
    bool makeTables();
    int pragma(const char* name);
    bool run(const char* sql);
    bool put(const Write& write);
    QString putAlone(const Write& write);
    QString message() const;
    void close();

    sqlite3* m_connection = nullptr;
    sqlite3_stmt* m_put = nullptr;
    int m_lock = -1;
};
