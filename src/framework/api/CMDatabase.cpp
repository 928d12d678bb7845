#include "CMDatabase.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

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

QString systemError(const QString& file)
{
    return QStringLiteral("%1: %2.").arg(file, QString::fromLocal8Bit(std::strerror(errno)));
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

QString journal(const QString& file)
{
    return file + QStringLiteral("-wal");
}

QString sharedIndex(const QString& file)
{
    return file + QStringLiteral("-shm");
}

/// Makes the database file, so that SQLite takes over its mode for the files beside it.
bool makeOwned(const QString& file, QString* error)
{
    const int descriptor = openOwned(file);
    if (descriptor < 0) {
        *error = systemError(file);
        return false;
    }
    // No connection is open yet: closing a descriptor drops SQLite's locks on the file.
    ::close(descriptor);
    for (const QString& beside : { journal(file), sharedIndex(file) })
        ::chmod(QFile::encodeName(beside).constData(), OwnerOnly);
    return true;
}

bool setAside(const QString& file, QString* error)
{
    const QString stamp = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMddThhmmssZ"));
    const QString first = file + QStringLiteral(".damaged-") + stamp;
    QString aside = first;
    for (int i = 2; QFileInfo::exists(aside); ++i)
        aside = first + QLatin1Char('-') + QString::number(i);
    if (!QFile::rename(file, aside)) {
        *error = QStringLiteral("%1: damaged, and it cannot be renamed.").arg(file);
        return false;
    }
    // A journal left behind would be replayed into the new database.
    for (const auto beside : { journal, sharedIndex }) {
        if (!QFileInfo::exists(beside(file)) || QFile::rename(beside(file), beside(aside)))
            continue;
        *error = QStringLiteral("%1: damaged, and it cannot be renamed.").arg(beside(file));
        return false;
    }
    dbglog_error(apiLogger(),
        "The database " << file << " is damaged (" << *error << ") and was set aside as " << aside
                        << "; every stored value starts with its default.");
    error->clear();
    return true;
}

/// Cut off before the end of its first page, which SQLite would take for a new database and drop the journal too.
bool isCutOff(const QString& file)
{
    constexpr qint64 SmallestPage = 512;
    const qint64 size = QFileInfo(file).size();
    return size > 0 ? size < SmallestPage : QFileInfo(journal(file)).size() > 0;
}

} // namespace

CMDatabase::~CMDatabase()
{
    close();
    if (m_lock >= 0)
        ::close(m_lock);
}

void CMDatabase::close()
{
    sqlite3_finalize(m_put);
    sqlite3_close(m_connection);
    m_put = nullptr;
    m_connection = nullptr;
}

bool CMDatabase::lock(const QString& file, QString* error)
{
    const QString lockFile = file + QStringLiteral(".lock");
    m_lock = openOwned(lockFile);
    if (m_lock < 0) {
        *error = systemError(lockFile);
        return false;
    }
    if (::flock(m_lock, LOCK_EX | LOCK_NB) == 0)
        return true;
    *error = errno == EWOULDBLOCK ? QStringLiteral("%1: in use by another host.").arg(file) : systemError(lockFile);
    ::close(m_lock);
    m_lock = -1;
    return false;
}

bool CMDatabase::open(const QString& file, QString* error)
{
    if (!lock(file, error))
        return false;
    Opening opening = openFile(file, error);
    if (opening == Opening::Damaged) {
        close();
        opening = setAside(file, error) ? openFile(file, error) : Opening::Failed;
    }
    if (opening == Opening::Opened)
        return true;
    close();
    ::close(m_lock);
    m_lock = -1;
    return false;
}

CMDatabase::Opening CMDatabase::openFile(const QString& file, QString* error)
{
    if (isCutOff(file)) {
        *error = QStringLiteral("the file is cut off");
        return Opening::Damaged;
    }
    if (!makeOwned(file, error))
        return Opening::Failed;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
    Opening opening = Opening::Opened;
    if (sqlite3_open_v2(QFile::encodeName(file).constData(), &m_connection, flags, nullptr) != SQLITE_OK)
        opening = failed(error);
    else
        opening = prepare(error);
    if (opening == Opening::Failed)
        error->prepend(file + QStringLiteral(": "));
    return opening;
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
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB ? Opening::Damaged : Opening::Failed;
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

QString CMDatabase::message() const
{
    return QString::fromUtf8(sqlite3_errmsg(m_connection)) + QLatin1Char('.');
}

QHash<CMPath, ZarkValue> CMDatabase::readAll()
{
    QHash<CMPath, ZarkValue> values;
    Statement rows(m_connection, "SELECT path, value FROM node");
    while (rows.step() == SQLITE_ROW) {
        const CMPath path = CMPath::fromEncoded(QString::fromUtf8(rows.text(0)));
        const ZarkValue value(ZarkJson::parse(rows.text(1), nullptr));
        if (value.isValid())
            values.insert(path, value);
        else
            dbglog_error(apiLogger(), "The stored value of " << path.toEncoded() << " is unreadable and ignored.");
    }
    return values;
}

QVector<QString> CMDatabase::commit(const QVector<Write>& writes)
{
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
