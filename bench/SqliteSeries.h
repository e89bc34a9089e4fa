// SqliteSeries: the peer. The same series in an SQLite table
// (ts INTEGER PRIMARY KEY, v REAL) WITHOUT ROWID, in WAL mode with
// synchronous NORMAL, written in transactions through prepared statements,
// and read by range scans ordered by ts and by GROUP BY.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace bench {

struct Workload;

using Row2 = std::pair<long long, double>;

class SqliteSeries {
public:
    explicit SqliteSeries(const std::string& path);
    ~SqliteSeries();
    SqliteSeries(const SqliteSeries&) = delete;
    SqliteSeries& operator=(const SqliteSeries&) = delete;

    // Inserts the whole workload in one transaction; returns the seconds.
    double insertAll(const Workload& work);
    // Inserts the rows in the given number of transactions of equal size;
    // returns the seconds.
    double insert(const std::vector<Row2>& rows, int transactions);

    // The rows of [lo, hi] in ts order, appended to out.
    void scan(long long lo, long long hi, std::vector<Row2>& out);
    // (hour index, mean of v) of each hour of [lo, hi].
    void hourlyMeans(long long lo, long long hi, std::vector<Row2>& out);
    long long count(long long lo, long long hi);
    bool find(long long ts, Row2& row);
    bool findPrev(long long ts, Row2& row);   // the last row before ts
    bool last(Row2& row);

private:
    void exec(const char* sql);
    sqlite3_stmt* prepare(const char* sql);
    bool stepRow(sqlite3_stmt* statement, Row2& row);
    // Appends the rows a statement over [lo, hi] gives.
    void collectRows(sqlite3_stmt* statement, long long lo, long long hi, std::vector<Row2>& out);

    sqlite3* db = nullptr;
    std::vector<sqlite3_stmt*> statements;
    sqlite3_stmt* insertStatement = nullptr;
    sqlite3_stmt* scanStatement = nullptr;
    sqlite3_stmt* hourStatement = nullptr;
    sqlite3_stmt* countStatement = nullptr;
    sqlite3_stmt* findStatement = nullptr;
    sqlite3_stmt* prevStatement = nullptr;
    sqlite3_stmt* lastStatement = nullptr;
};

} // namespace bench
