// Single records: the record at a time, the record before a time and the
// last record, each call on its own as a caller makes it, beside SQLite's
// primary-key lookups.

#include "Cases.h"

namespace bench {

namespace {

constexpr long long kLookups = 2000;

// Times `calls` calls of lookup(i); each must find its record.
Rates lookups(Context& c, const std::function<bool(long long)>& lookup, const std::string& what)
{
    return repeat(c.plan, double(kLookups), [&](int) {
        Stopwatch clock;
        clock.start();
        for (long long i = 0; i < kLookups; ++i)
            check(lookup(i), what);
        clock.stop();
        return clock.seconds();
    });
}

} // namespace

void runLookupCases(Context& c)
{
    const Workload& w = c.work;
    auto series = openSeries(c.seriesDir);
    const std::vector<long long> at = w.randomIndices(kLookups, 7);
    Record rec;
    Row2 row;
    const auto add = [&](const char* key, const char* name, const Rates& r, const char* peer, const char* label) {
        c.table.add({key, name, r, "", peer, perCall(r), label});
    };

    c.table.section("Point lookups (calls/s)");
    add("find", "findDataRecord", lookups(c, [&](long long i) {
            return series->findDataRecord(w.ts(at[size_t(i)]), rec) && rec.timestamp == w.ts(at[size_t(i)]);
        }, "findDataRecord"), "sqlite-find", "");
    add("find-prev", "findPrevDataRecord", lookups(c, [&](long long i) {
            // The record before the time, or the one after it where the search ends above it.
            const long long before = w.ts(at[size_t(i)]);
            return series->findPrevDataRecord(before + 500, rec) &&
                   (rec.timestamp == before || rec.timestamp == before + kSecondMs);
        }, "findPrevDataRecord"), "sqlite-prev", "");
    add("first", "getFirstDataRecord", lookups(c, [&](long long) {
            return series->getFirstDataRecord(rec) && rec.timestamp == w.t0;
        }, "getFirstDataRecord"), "sqlite-last", "");
    add("last", "getLastDataRecord", lookups(c, [&](long long) {
            return series->getLastDataRecord(rec) && rec.timestamp == w.lastTs();
        }, "getLastDataRecord"), "sqlite-last", "");

    add("sqlite-find", "SQLite: row at ts", lookups(c, [&](long long i) {
            return c.sqlite->find(w.ts(at[size_t(i)]), row);
        }, "SQLite row at ts"), "", "SQLite");
    add("sqlite-prev", "SQLite: last row before ts", lookups(c, [&](long long i) {
            return c.sqlite->findPrev(w.ts(at[size_t(i)]) + 500, row) && row.first == w.ts(at[size_t(i)]);
        }, "SQLite row before ts"), "", "SQLite");
    add("sqlite-last", "SQLite: last row", lookups(c, [&](long long) {
            return c.sqlite->last(row) && row.first == w.lastTs();
        }, "SQLite last row"), "", "SQLite");
}

} // namespace bench
