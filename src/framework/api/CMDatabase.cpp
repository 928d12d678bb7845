#include "CMDatabase.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ApiLogger.h"
#include "ZarkJson.h"

namespace {

constexpr int ApplicationId = 0x5a61726b; // "Zark"
constexpr int Version = 1;
constexpr mode_t OwnerOnly = 0600;
constexpr int PagesAtOnce = 4;

/// A prepared statement that is finalised on every way out.
class Statement {
public:
    Statement(sqlite3* connection, const char* sql)
    {
        m_result = sqlite3_prepare_v2(connection, sql, -1, &m_statement, nullptr);
    }
    ~Statement() { sqlite3_finalize(m_statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    int step() { return m_result == SQLITE_OK ? sqlite3_step(m_statement) : m_result; }
    int integer(int column) const { return sqlite3_column_int(m_statement, column); }
    QByteArray text(int column) const
    {
        const void* const bytes = sqlite3_column_blob(m_statement, column);
        return QByteArray(static_cast<const char*>(bytes), sqlite3_column_bytes(m_statement, column));
    }

private:
    sqlite3_stmt* m_statement = nullptr;
    int m_result;
};

/// What SQLite keeps in files beside the database: the journal, and the index that is shared over it.
const QString Journal = QStringLiteral("-wal");
const QString SharedIndex = QStringLiteral("-shm");

QString systemError(const QString& file)
{
    return QStringLiteral("%1: %2.").arg(file, QString::fromLocal8Bit(std::strerror(errno)));
}

/// Whether a system call failed because nothing more can be stored, which may pass.
bool meansNoRoom(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

QString diskOf(const QString& file)
{
    return QStringLiteral("the disk at ") + QStorageInfo(QFileInfo(file).absolutePath()).rootPath();
}

QString noRoom(const QString& file)
{
    return diskOf(file) + QStringLiteral(" is full.");
}

/// Opens or makes `file` for its owner alone; -1 when it cannot be had.
int openOwned(const QString& file)
{
    const int descriptor = ::open(QFile::encodeName(file).constData(), O_RDWR | O_CREAT | O_CLOEXEC, OwnerOnly);
    if (descriptor >= 0 && ::fchmod(descriptor, OwnerOnly) != 0) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

/// Makes the database file, so that SQLite takes over its mode for the files beside it.
bool makeOwned(const QString& file)
{
    const int descriptor = openOwned(file);
    if (descriptor < 0)
        return false;
    // No connection is open yet: closing a descriptor drops SQLite's locks on the file.
    ::close(descriptor);
    for (const QString& beside : { file + Journal, file + SharedIndex })
        ::chmod(QFile::encodeName(beside).constData(), OwnerOnly);
    return true;
}

QString freeNameAside(const QString& file)
{
    const QString stamp = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMddThhmmssZ"));
    const QString first = file + QStringLiteral(".damaged-") + stamp;
    QString aside = first;
    for (int i = 2; QFileInfo::exists(aside) || QFileInfo::exists(aside + Journal); ++i)
        aside = first + QLatin1Char('-') + QString::number(i);
    return aside;
}

/// Renames what there is of the three files: an earlier start may have ended between two of these renames.
bool setAside(const QString& file, QString* error)
{
    const QString aside = freeNameAside(file);
    // A journal left behind would be replayed into the new database.
    for (const QString& suffix : { QString(), Journal, SharedIndex }) {
        const QByteArray from = QFile::encodeName(file + suffix);
        if (::rename(from.constData(), QFile::encodeName(aside + suffix).constData()) == 0 || errno == ENOENT)
            continue;
        *error = QStringLiteral("damaged, and it cannot be renamed: ") + systemError(file + suffix);
        return false;
    }
    dbglog_error(apiLogger(),
        "The database " << file << " is damaged (" << *error << ") and was set aside as " << aside
                        << "; every stored value starts with its default.");
    error->clear();
    return true;
}

/// Missing beside its journal, or cut off before the end of its first page, which SQLite would take for a new database
/// and drop the journal too.
bool isCutOff(const QString& file)
{
    constexpr qint64 SmallestPage = 512;
    const qint64 size = QFileInfo(file).size();
    return size > 0 ? size < SmallestPage : QFileInfo(file + Journal).size() > 0;
}

} // namespace

CMDatabase::~CMDatabase()
{
    close();
    unlock();
}

void CMDatabase::close()
{
    sqlite3_finalize(m_put);
    sqlite3_close(m_connection);
    m_put = nullptr;
    m_connection = nullptr;
}

void CMDatabase::unlock()
{
    if (m_lock >= 0)
        ::close(m_lock);
    m_lock = -1;
}

CMDatabase::Opening CMDatabase::systemFailed(const QString& file, QString* error) const
{
    const bool isFull = meansNoRoom(errno);
    *error = isFull ? noRoom(m_file) : systemError(file);
    return isFull ? Opening::NoRoom : Opening::Failed;
}

CMDatabase::Opening CMDatabase::lock(QString* error)
{
    const QString lockFile = m_file + QStringLiteral(".lock");
    m_lock = openOwned(lockFile);
    if (m_lock < 0)
        return systemFailed(lockFile, error);
    if (::flock(m_lock, LOCK_EX | LOCK_NB) == 0)
        return Opening::Opened;
    *error = errno == EWOULDBLOCK ? QStringLiteral("%1: in use by another host.").arg(m_file) : systemError(lockFile);
    return Opening::Failed;
}

bool CMDatabase::open(const QString& file, QString* error)
{
    m_file = file;
    const Opening opening = tryOpen(error);
    if (opening == Opening::Opened && !m_isIndexShared)
        dbglog_error(
            apiLogger(), "Stored values are read, and nothing is stored until there is room: " << noRoom(file));
    if (opening == Opening::NoRoom)
        dbglog_error(
            apiLogger(), "Values start with their defaults, and none is stored until there is room: " << *error);
    const bool canStart = opening == Opening::Opened || opening == Opening::NoRoom;
    if (canStart)
        error->clear();
    return canStart;
}

/// All or nothing.
CMDatabase::Opening CMDatabase::tryOpen(QString* error)
{
    Opening opening = lock(error);
    if (opening == Opening::Opened)
        opening = openFile(error);
    // A read that fails once can look like damage too: nobody's values are given up for that.
    if (opening == Opening::Damaged) {
        close();
        opening = openFile(error);
    }
    if (opening == Opening::Damaged) {
        close();
        opening = setAside(m_file, error) ? openFile(error) : Opening::Failed;
    }
    if (opening != Opening::Opened) {
        close();
        unlock();
    }
    return opening;
}

CMDatabase::Opening CMDatabase::openFile(QString* error)
{
    if (isCutOff(m_file)) {
        *error = QStringLiteral("the file is cut off");
        return Opening::Damaged;
    }
    if (!makeOwned(m_file))
        return systemFailed(m_file, error);
    m_isIndexShared = true;
    Opening opening = connectFile(error);
    if (opening == Opening::NoRoom) {
        // The index over the journal takes 32 KiB of the disk, unless it is shared with nobody.
        close();
        m_isIndexShared = false;
        opening = connectFile(error);
    }
    if (opening == Opening::Failed)
        error->prepend(m_file + QStringLiteral(": "));
    return opening;
}

CMDatabase::Opening CMDatabase::connectFile(QString* error)
{
    // The library would take room for twenty pages at once; a few are all that is ever used here. Refused, and no
    // matter, when somebody else in the process uses it already.
    static const int configured = sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, PagesAtOnce);
    Q_UNUSED(configured)
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
    if (sqlite3_open_v2(QFile::encodeName(m_file).constData(), &m_connection, flags, nullptr) != SQLITE_OK)
        return failed(error);
    // Before the first look into the file, which settles where the index lives.
    if (!m_isIndexShared && !run("PRAGMA locking_mode=EXCLUSIVE"))
        return failed(error);
    return prepare(error);
}

CMDatabase::Opening CMDatabase::prepare(QString* error)
{
    // Somebody may look into the database with another program for a moment.
    sqlite3_busy_timeout(m_connection, 5000);
    const Opening owner = checkOwner(error);
    if (owner != Opening::Opened)
        return owner;
    if (!run("PRAGMA journal_mode=WAL") || !run("PRAGMA synchronous=FULL"))
        return failed(error);
    const Opening pages = checkPages(error);
    if (pages != Opening::Opened)
        return pages;
    // Nothing is written to a database that is made already: a full disk must not prevent a start.
    const bool made = pragma("PRAGMA user_version") == Version || makeTables();
    if (!made)
        return failed(error);
    const char* const put = "INSERT INTO node (path, value) VALUES (?1, ?2) "
                            "ON CONFLICT (path) DO UPDATE SET value = excluded.value";
    const int result = sqlite3_prepare_v3(m_connection, put, -1, SQLITE_PREPARE_PERSISTENT, &m_put, nullptr);
    return result == SQLITE_OK ? Opening::Opened : failed(error);
}

bool CMDatabase::makeTables()
{
    return run("BEGIN IMMEDIATE")
        && run("CREATE TABLE IF NOT EXISTS node (path TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID")
        && run(qPrintable(QStringLiteral("PRAGMA application_id=%1").arg(ApplicationId)))
        && run(qPrintable(QStringLiteral("PRAGMA user_version=%1").arg(Version))) && run("COMMIT");
}

CMDatabase::Opening CMDatabase::checkOwner(QString* error)
{
    const int application = pragma("PRAGMA application_id");
    const int code = sqlite3_errcode(m_connection);
    if (code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE)
        return failed(error);
    const bool ours = application == ApplicationId || (application == 0 && isFresh());
    if (!ours) {
        *error = QStringLiteral("a database of another program.");
        return Opening::Failed;
    }
    if (pragma("PRAGMA user_version") > Version) {
        *error = QStringLiteral("written by a newer version.");
        return Opening::Failed;
    }
    return Opening::Opened;
}

CMDatabase::Opening CMDatabase::checkPages(QString* error)
{
    Statement check(m_connection, "PRAGMA quick_check(1)");
    if (check.step() != SQLITE_ROW)
        return failed(error);
    const QByteArray answer = check.text(0);
    if (answer == "ok")
        return Opening::Opened;
    *error = QString::fromUtf8(answer);
    return Opening::Damaged;
}

CMDatabase::Opening CMDatabase::failed(QString* error) const
{
    *error = message();
    const int code = sqlite3_errcode(m_connection) & 0xff;
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB)
        return Opening::Damaged;
    return isOutOfRoom() ? Opening::NoRoom : Opening::Failed;
}

bool CMDatabase::isFresh()
{
    return pragma("SELECT count(*) FROM sqlite_master") == 0;
}

int CMDatabase::pragma(const char* name)
{
    Statement statement(m_connection, name);
    return statement.step() == SQLITE_ROW ? statement.integer(0) : -1;
}

bool CMDatabase::run(const char* sql)
{
    return sqlite3_exec(m_connection, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool CMDatabase::isOutOfRoom() const
{
    const int code = sqlite3_extended_errcode(m_connection);
    const bool isSystemError = (code & 0xff) == SQLITE_IOERR || (code & 0xff) == SQLITE_CANTOPEN;
    return (code & 0xff) == SQLITE_FULL || code == SQLITE_IOERR_SHMSIZE
        || (isSystemError && meansNoRoom(sqlite3_system_errno(m_connection)));
}

QString CMDatabase::message() const
{
    if (isOutOfRoom())
        return noRoom(m_file);
    const bool isDisk = (sqlite3_errcode(m_connection) & 0xff) == SQLITE_IOERR;
    return QString::fromUtf8(sqlite3_errmsg(m_connection))
        + (isDisk ? QStringLiteral(" on %1.").arg(diskOf(m_file)) : QStringLiteral("."));
}

bool CMDatabase::readAll(QHash<CMPath, ZarkValue>* values, QString* error)
{
    if (!m_connection)
        return true;
    Statement rows(m_connection, "SELECT path, value FROM node");
    int result = rows.step();
    for (; result == SQLITE_ROW; result = rows.step()) {
        const CMPath path = CMPath::fromEncoded(QString::fromUtf8(rows.text(0)));
        const ZarkValue value(ZarkJson::parse(rows.text(1), nullptr));
        if (value.isValid())
            values->insert(path, value);
        else
            dbglog_error(apiLogger(), "The stored value of " << path.toEncoded() << " is unreadable and ignored.");
    }
    if (result != SQLITE_DONE)
        *error = m_file + QStringLiteral(": ") + message();
    return result == SQLITE_DONE;
}

QVector<QString> CMDatabase::commit(const QVector<Write>& writes)
{
    QString error;
    if (!m_connection && tryOpen(&error) != Opening::Opened)
        return QVector<QString>(writes.size(), error);
    bool done = run("BEGIN IMMEDIATE");
    for (const Write& write : writes)
        done = done && put(write);
    if (done && run("COMMIT"))
        return QVector<QString>(writes.size());

    // One value too large or a disk that is nearly full need not fail the others.
    run("ROLLBACK");
    QVector<QString> errors;
    for (const Write& write : writes)
        errors.append(putAlone(write));
    return errors;
}

QString CMDatabase::putAlone(const Write& write)
{
    if (run("BEGIN IMMEDIATE") && put(write) && run("COMMIT"))
        return {};
    const QString error = message();
    run("ROLLBACK");
    dbglog_error(apiLogger(), "The value of " << write.path.toEncoded() << " was not stored: " << error);
    return error;
}

bool CMDatabase::put(const Write& write)
{
    const QByteArray path = write.path.toEncoded().toUtf8();
    const QByteArray json = ZarkJson::serialize(QVariant::fromValue(write.value));
    const bool bound = sqlite3_bind_text(m_put, 1, path.constData(), path.size(), SQLITE_STATIC) == SQLITE_OK
        && sqlite3_bind_text(m_put, 2, json.constData(), json.size(), SQLITE_STATIC) == SQLITE_OK;
    const bool done = bound && sqlite3_step(m_put) == SQLITE_DONE;
    sqlite3_reset(m_put);
    sqlite3_clear_bindings(m_put);
    return done;
}
