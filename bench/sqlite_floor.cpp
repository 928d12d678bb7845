// What SQLite alone commits: one durable write a transaction, as a store of persistent values has to do it.
//
//     sqlite_floor DATABASE SECONDS        prints the commits per second

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <sqlite3.h>

namespace {

using Clock = std::chrono::steady_clock;

void require(sqlite3* database, int result)
{
    if (result == SQLITE_OK || result == SQLITE_DONE)
        return;
    std::fprintf(stderr, "sqlite_floor: %s\n", sqlite3_errmsg(database));
    std::exit(1);
}

sqlite3* openDatabase(const char* path)
{
    sqlite3* database = nullptr;
    require(database, sqlite3_open(path, &database));
    const char* setup = "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
                        "CREATE TABLE IF NOT EXISTS node_values (path TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID;";
    require(database, sqlite3_exec(database, setup, nullptr, nullptr, nullptr));
    return database;
}

void write(sqlite3* database, sqlite3_stmt* statement, sqlite3_int64 value)
{
    require(database, sqlite3_bind_int64(statement, 1, value));
    require(database, sqlite3_step(statement));
    require(database, sqlite3_reset(statement));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: sqlite_floor DATABASE SECONDS\n");
        return 2;
    }
    sqlite3* database = openDatabase(argv[1]);
    sqlite3_stmt* statement = nullptr;
    require(database,
        sqlite3_prepare_v2(
            database, "INSERT OR REPLACE INTO node_values VALUES ('demo:values/i32', ?)", -1, &statement, nullptr));
    const auto length = std::chrono::duration<double>(std::atof(argv[2]));
    const auto start = Clock::now();
    std::chrono::duration<double> spent{};
    sqlite3_int64 commits = 0;
    for (; spent < length; spent = Clock::now() - start)
        write(database, statement, ++commits);
    std::printf("%.1f\n", static_cast<double>(commits) / spent.count());
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return 0;
}
