// A host's everyday writes: one new reading for each of 500 series in turn,
// every series its own directory, each append a call of its own, beside
// SQLite inserting the same rows one transaction each into one table keyed
// by series and time (WAL, synchronous NORMAL, a prepared statement).

#include "Cases.h"

#include <sqlite3.h>

namespace bench {

namespace {

constexpr int kSeries = 500;
constexpr int kRounds = 20;

Rates libraryAppends(Context& c)
{
    std::vector<std::unique_ptr<Kel::TSFileStorage>> series;
    for (int s = 0; s < kSeries; ++s)
        series.push_back(openSeries(c.dir.path("many/s" + std::to_string(s))));
    long long round = 0;
    const Rates rates = repeat(c.plan, double(kSeries * kRounds), [&](int) {
        Stopwatch clock;
        clock.start();
        for (int r = 0; r < kRounds; ++r, ++round)
            for (int s = 0; s < kSeries; ++s)
                check(series[size_t(s)]->writeDataRecords({{c.work.ts(round), QVariant(double(s))}}, false, false),
                      "append to one of many series");
        clock.stop();
        return clock.seconds();
    });
    removeTree(c.dir.path("many"));
    return rates;
}

Rates sqliteInserts(Context& c)
{
    const std::string path = c.dir.path("many.db");
    sqlite3* db = nullptr;
    check(sqlite3_open(path.c_str(), &db) == SQLITE_OK, "SQLite open");
    for (const char* sql : {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=NORMAL",
                            "CREATE TABLE rows (series INTEGER, ts INTEGER, v REAL, PRIMARY KEY (series, ts)) "
                            "WITHOUT ROWID"})
        check(sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
    sqlite3_stmt* insert = nullptr;
    check(sqlite3_prepare_v2(db, "INSERT INTO rows VALUES (?, ?, ?)", -1, &insert, nullptr) == SQLITE_OK,
          "SQLite prepare");
    long long round = 0;
    const Rates rates = repeat(c.plan, double(kSeries * kRounds), [&](int) {
        Stopwatch clock;
        clock.start();
        for (int r = 0; r < kRounds; ++r, ++round) {
            for (int s = 0; s < kSeries; ++s) {
                sqlite3_bind_int(insert, 1, s);
                sqlite3_bind_int64(insert, 2, c.work.ts(round));
                sqlite3_bind_double(insert, 3, double(s));
                check(sqlite3_step(insert) == SQLITE_DONE, "SQLite insert");
                sqlite3_reset(insert);
            }
        }
        clock.stop();
        return clock.seconds();
    });
    sqlite3_finalize(insert);
    sqlite3_close(db);
    std::remove(path.c_str());
    std::remove((path + "-wal").c_str());
    std::remove((path + "-shm").c_str());
    return rates;
}

} // namespace

void runManySeriesCases(Context& c)
{
    c.table.section("One record to each of 500 series in turn (appends/s)");
    const Rates library = libraryAppends(c);
    const Rates sqlite = sqliteInserts(c);
    c.table.add({"many-append", "append one record, 500 series in turn", library, "", "many-sqlite",
                 perCall(library), ""});
    c.table.add({"many-sqlite", "SQLite: insert a row a transaction", sqlite, "", "", perCall(sqlite),
                 "SQLite row a transaction"});
    c.table.target({"many-append", "many-sqlite", 1.0});
}

} // namespace bench
