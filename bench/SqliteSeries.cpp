// The SQLite peer.

#include "SqliteSeries.h"

#include "Harness.h"
#include "Workload.h"

#include <sqlite3.h>

#include <algorithm>
#include <stdexcept>

namespace bench {

SqliteSeries::SqliteSeries(const std::string& path)
{
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK)
        throw std::runtime_error("cannot open " + path);
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=NORMAL");
    exec("CREATE TABLE IF NOT EXISTS series (ts INTEGER PRIMARY KEY, v REAL) WITHOUT ROWID");
    insertStatement = prepare("INSERT INTO series (ts, v) VALUES (?1, ?2)");
    scanStatement = prepare("SELECT ts, v FROM series WHERE ts BETWEEN ?1 AND ?2 ORDER BY ts");
    hourStatement = prepare("SELECT ts / 3600000, avg(v) FROM series WHERE ts BETWEEN ?1 AND ?2 "
                            "GROUP BY ts / 3600000");
    countStatement = prepare("SELECT count(*), 0 FROM series WHERE ts BETWEEN ?1 AND ?2");
    findStatement = prepare("SELECT ts, v FROM series WHERE ts = ?1");
    prevStatement = prepare("SELECT ts, v FROM series WHERE ts < ?1 ORDER BY ts DESC LIMIT 1");
    lastStatement = prepare("SELECT ts, v FROM series ORDER BY ts DESC LIMIT 1");
}

SqliteSeries::~SqliteSeries()
{
    for (sqlite3_stmt* s : statements)
        sqlite3_finalize(s);
    sqlite3_close(db);
}

void SqliteSeries::exec(const char* sql)
{
    char* error = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string message = error ? error : "unknown error";
        sqlite3_free(error);
        throw std::runtime_error(std::string(sql) + ": " + message);
    }
}

sqlite3_stmt* SqliteSeries::prepare(const char* sql)
{
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK)
        throw std::runtime_error(std::string(sql) + ": " + sqlite3_errmsg(db));
    statements.push_back(s);
    return s;
}

double SqliteSeries::insertAll(const Workload& work)
{
    Stopwatch clock;
    clock.start();
    exec("BEGIN");
    for (long long i = 0; i < work.records; ++i) {
        sqlite3_bind_int64(insertStatement, 1, work.ts(i));
        sqlite3_bind_double(insertStatement, 2, work.values[size_t(i)]);
        if (sqlite3_step(insertStatement) != SQLITE_DONE)
            throw std::runtime_error(sqlite3_errmsg(db));
        sqlite3_reset(insertStatement);
    }
    exec("COMMIT");
    clock.stop();
    return clock.seconds();
}

double SqliteSeries::insert(const std::vector<Row2>& rows, int transactions)
{
    const size_t perTransaction = (rows.size() + size_t(transactions) - 1) / size_t(transactions);
    Stopwatch clock;
    clock.start();
    for (size_t first = 0; first < rows.size(); first += perTransaction) {
        exec("BEGIN");
        for (size_t i = first; i < std::min(rows.size(), first + perTransaction); ++i) {
            sqlite3_bind_int64(insertStatement, 1, rows[i].first);
            sqlite3_bind_double(insertStatement, 2, rows[i].second);
            if (sqlite3_step(insertStatement) != SQLITE_DONE)
                throw std::runtime_error(sqlite3_errmsg(db));
            sqlite3_reset(insertStatement);
        }
        exec("COMMIT");
    }
    clock.stop();
    return clock.seconds();
}

bool SqliteSeries::stepRow(sqlite3_stmt* statement, Row2& row)
{
    if (sqlite3_step(statement) != SQLITE_ROW)
        return false;
    row.first = sqlite3_column_int64(statement, 0);
    row.second = sqlite3_column_double(statement, 1);
    return true;
}

void SqliteSeries::collectRows(sqlite3_stmt* statement, long long lo, long long hi, std::vector<Row2>& out)
{
    sqlite3_bind_int64(statement, 1, lo);
    sqlite3_bind_int64(statement, 2, hi);
    Row2 row;
    while (stepRow(statement, row))
        out.push_back(row);
    sqlite3_reset(statement);
}

void SqliteSeries::scan(long long lo, long long hi, std::vector<Row2>& out)
{
    collectRows(scanStatement, lo, hi, out);
}

void SqliteSeries::hourlyMeans(long long lo, long long hi, std::vector<Row2>& out)
{
    collectRows(hourStatement, lo, hi, out);
}

long long SqliteSeries::count(long long lo, long long hi)
{
    sqlite3_bind_int64(countStatement, 1, lo);
    sqlite3_bind_int64(countStatement, 2, hi);
    Row2 row{0, 0.0};
    stepRow(countStatement, row);
    sqlite3_reset(countStatement);
    return row.first;
}

bool SqliteSeries::find(long long ts, Row2& row)
{
    sqlite3_bind_int64(findStatement, 1, ts);
    const bool found = stepRow(findStatement, row);
    sqlite3_reset(findStatement);
    return found;
}

bool SqliteSeries::findPrev(long long ts, Row2& row)
{
    sqlite3_bind_int64(prevStatement, 1, ts);
    const bool found = stepRow(prevStatement, row);
    sqlite3_reset(prevStatement);
    return found;
}

bool SqliteSeries::last(Row2& row)
{
    const bool found = stepRow(lastStatement, row);
    sqlite3_reset(lastStatement);
    return found;
}

} // namespace bench
