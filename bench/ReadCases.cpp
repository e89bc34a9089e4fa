// Reading the series back: raw (the whole range into a used and into a fresh
// vector, one hour, ten minutes at places spread over the range), condensed by the engine (hourly means, daily extremes,
// a 15-minute linear grid, daily consumption of the counter) and counted,
// each beside SQLite's scan, GROUP BY and count(*) of the same range. Every
// read is checked against the workload or against SQLite's answer once.

#include "Cases.h"

#include <cmath>

namespace bench {

namespace {

using Kel::TSFileStorage;

constexpr int kHourReads = 200;
constexpr int kShortReads = 500;
constexpr int kCounts = 20;

bool read(TSFileStorage& series, const Kel::Interpolate::InterpolateParam& param, long long lo, long long hi,
          Records& out)
{
    int noLimit = 0;
    return series.readDataRecords(param, {}, lo, hi, out, false, noLimit);
}

void checkRaw(const Records& out, const Workload& w, long long first, long long n)
{
    check(out.size() == size_t(n), "raw read: record count");
    for (long long i = 0; i < n; i += 997)
        check(out[size_t(i)].timestamp == w.ts(first + i) &&
                  out[size_t(i)].value.toDouble() == w.values[size_t(first + i)],
              "raw read: records");
}

// The engine's hourly means are stamped at each hour's end; SQLite's groups
// are numbered by the hour they begin.
void checkHourlyMeans(const Records& library, const std::vector<Row2>& sqlite)
{
    check(library.size() == sqlite.size(), "hourly means: as many as SQLite's");
    for (size_t i = 0; i < library.size(); ++i) {
        const double a = library[i].value.toDouble();
        check(library[i].timestamp == (sqlite[i].first + 1) * kHourMs &&
                  std::fabs(a - sqlite[i].second) <= 1e-9 * std::fabs(a),
              "hourly means: equal to SQLite's");
    }
}

// Runs a condensed read of the whole range into a used vector.
Rates condensed(Context& c, TSFileStorage& series, const char* method, long long interval, Records& out)
{
    const auto param = request(method, interval);
    return repeat(c.plan, double(c.work.records), [&](int) {
        out.clear();
        Stopwatch clock;
        clock.start();
        const bool ok = read(series, param, c.work.t0, c.work.lastTs(), out);
        clock.stop();
        // A linear read closes an interval only with a record after it: a
        // workload of less than two days may have no daily value.
        check(ok && (c.work.days() < 2 || !out.empty()), std::string("read ") + method);
        return clock.seconds();
    });
}

void rawReads(Context& c, TSFileStorage& series)
{
    const Workload& w = c.work;
    const double n = double(w.records);
    const auto raw = request("", 0);
    Records out;
    check(read(series, raw, w.t0, w.lastTs(), out), "raw read");
    checkRaw(out, w, 0, w.records);

    const auto timedRead = [&](Records& into) {
        Stopwatch clock;
        clock.start();
        const bool ok = read(series, raw, w.t0, w.lastTs(), into);
        clock.stop();
        check(ok && into.size() == size_t(w.records), "raw read");
        return clock.seconds();
    };
    c.table.add({"read-used", "raw read, whole range, used vector", repeat(c.plan, n, [&](int) {
                     out.clear();
                     return timedRead(out);
                 }),
                 "used-bound", "sqlite-scan", "", ""});
    out = Records();
    c.table.add({"read-fresh", "raw read, whole range, fresh vector", repeat(c.plan, n, [&](int) {
                     Records fresh;
                     return timedRead(fresh);
                 }),
                 "fresh-bound", "sqlite-scan", "", ""});

    const long long hourFirst = std::min(w.records / 2 / 3600 * 3600, std::max(0LL, w.records - 3600));
    const long long hourRecords = std::min(3600LL, w.records);
    const long long lo = w.ts(hourFirst);
    const long long hi = lo + kHourMs - 1;
    check(read(series, raw, lo, hi, out), "one-hour read");
    checkRaw(out, w, hourFirst, hourRecords);
    c.table.add({"read-hour", "raw read, one hour", repeat(c.plan, double(hourRecords * kHourReads), [&](int) {
                     Stopwatch clock;
                     for (int i = 0; i < kHourReads; ++i) {
                         out.clear();
                         clock.start();
                         read(series, raw, lo, hi, out);
                         clock.stop();
                     }
                     return clock.seconds();
                 }),
                 "used-bound", "sqlite-hour", "", ""});

    // Ten minutes at places spread over the range, as a trend display asks
    // for the last minutes of many series.
    const long long shortRecords = std::min(600LL, w.records);
    std::vector<long long> shortStarts;
    for (int i = 0; i < kShortReads; ++i)
        shortStarts.push_back(w.ts((w.records - shortRecords) * i / kShortReads));
    for (const long long lo : {shortStarts.front(), shortStarts.back()}) {
        out.clear();
        check(read(series, raw, lo, lo + shortRecords * kSecondMs - 1, out), "ten-minute read");
        check(out.size() == size_t(shortRecords), "ten-minute read");
    }
    c.table.add({"read-short", "raw read, 10 minutes, spread",
                 repeat(c.plan, double(shortRecords * kShortReads), [&](int) {
                     Stopwatch clock;
                     for (const long long lo : shortStarts) {
                         out.clear();
                         clock.start();
                         read(series, raw, lo, lo + shortRecords * kSecondMs - 1, out);
                         clock.stop();
                     }
                     return clock.seconds();
                 }),
                 "used-bound", "sqlite-short", "", ""});

    std::vector<Row2> rows;
    rows.reserve(size_t(w.records));
    c.table.add({"sqlite-short", "SQLite: scan, 10 minutes, spread",
                 repeat(c.plan, double(shortRecords * kShortReads), [&](int) {
                     Stopwatch clock;
                     for (const long long lo : shortStarts) {
                         rows.clear();
                         clock.start();
                         c.sqlite->scan(lo, lo + shortRecords * kSecondMs - 1, rows);
                         clock.stop();
                     }
                     return clock.seconds();
                 }),
                 "read-limit", "", "", "SQLite 10 minutes"});
    c.table.add({"sqlite-scan", "SQLite: scan, whole range", repeat(c.plan, n, [&](int) {
                     rows.clear();
                     Stopwatch clock;
                     clock.start();
                     c.sqlite->scan(w.t0, w.lastTs(), rows);
                     clock.stop();
                     check(rows.size() == size_t(w.records), "SQLite scan");
                     return clock.seconds();
                 }),
                 "read-limit", "", "rows into a used vector of pairs", "SQLite scan"});
    c.table.add({"sqlite-hour", "SQLite: scan, one hour", repeat(c.plan, double(hourRecords * kHourReads), [&](int) {
                     Stopwatch clock;
                     for (int i = 0; i < kHourReads; ++i) {
                         rows.clear();
                         clock.start();
                         c.sqlite->scan(lo, hi, rows);
                         clock.stop();
                     }
                     return clock.seconds();
                 }),
                 "read-limit", "", "", "SQLite hour"});
}

void condensedReads(Context& c, TSFileStorage& series)
{
    const Workload& w = c.work;
    Records out;
    c.table.add({"mean-hourly", "hourly MEAN_A (meanA, 3600)", condensed(c, series, "meanA", 3600, out),
                 "read-limit", "sqlite-group", "", ""});
    std::vector<Row2> groups;
    c.sqlite->hourlyMeans(w.t0, w.lastTs(), groups);
    checkHourlyMeans(out, groups);

    c.table.add({"minmax-daily", "daily MIN_MAX (minMax, -1)", condensed(c, series, "minMax", -1, out),
                 "read-limit", "", "", ""});
    c.table.add({"linear-15min", "15-minute PREV_NEXT (prevNextLinearFill, 900)",
                 condensed(c, series, "prevNextLinearFill", 900, out), "read-limit", "", "", ""});
    auto counter = openSeries(c.counterDir);
    c.table.add({"diff-daily", "daily consumption (diffCtrUpCleaned, -1)",
                 condensed(c, *counter, "diffCtrUpCleaned", -1, out), "read-limit", "", "of the counter", ""});
    // 2.5 units a second: the second day, a whole one, consumed 216,000.
    check(w.days() < 3 || out[1].value.toDouble() == 216000.0, "daily consumption");

    const auto hourly = request("meanA", 3600);
    const long long hours = (long long)(w.lastTs() / kHourMs - w.t0 / kHourMs + 1);
    c.table.add({"count-hourly", "count of hourly MEAN_A values", repeat(c.plan, double(w.records), [&](int) {
                     Stopwatch clock;
                     clock.start();
                     const long long n = series.getCount(hourly, {}, w.t0, w.lastTs(), true, false, false);
                     clock.stop();
                     check(n == hours, "count with an interval");
                     return clock.seconds();
                 }),
                 "read-limit", "", "a count-only read", ""});

    c.table.add({"sqlite-group", "SQLite: hourly avg, GROUP BY", repeat(c.plan, double(w.records), [&](int) {
                     groups.clear();
                     Stopwatch clock;
                     clock.start();
                     c.sqlite->hourlyMeans(w.t0, w.lastTs(), groups);
                     clock.stop();
                     return clock.seconds();
                 }),
                 "read-limit", "", "", "SQLite GROUP BY"});
}

// Raw counts in calls/s. The sparse series holds every tenth record of the
// workload in the same day files: a raw count costs the same on both.
void counts(Context& c, TSFileStorage& series, TSFileStorage& sparse)
{
    const Workload& w = c.work;
    const auto raw = request("", 0);
    const auto countCalls = [&](TSFileStorage& s, long long expected, const char* what) {
        return repeat(c.plan, double(kCounts), [&](int) {
            Stopwatch clock;
            clock.start();
            for (int i = 0; i < kCounts; ++i)
                check(s.getCount(raw, {}, w.t0, w.lastTs(), true, false, false) == expected, what);
            clock.stop();
            return clock.seconds();
        });
    };
    const Rates dense = countCalls(series, w.records, "raw count");
    const Rates tenth = countCalls(sparse, (w.records + 9) / 10, "raw count of the sparse series");
    const Rates sql = repeat(c.plan, 1.0, [&](int) {
        Stopwatch clock;
        clock.start();
        const long long n = c.sqlite->count(w.t0, w.lastTs());
        clock.stop();
        check(n == w.records, "SQLite count");
        return clock.seconds();
    });

    c.table.section("Raw counts of the whole range (calls/s)");
    c.table.add({"count-raw", "raw count", dense, "count-sparse", "sqlite-count", perCall(dense), ""});
    c.table.add({"count-sparse", "raw count, a tenth of the records, same files", tenth, "", "",
                 perCall(tenth), "sparse count"});
    c.table.add({"sqlite-count", "SQLite: count(*)", sql, "", "", perCall(sql), "SQLite count"});
}

} // namespace

void runReadCases(Context& c)
{
    const Workload& w = c.work;
    c.counterDir = c.dir.path("counter");
    appendInBatches(*openSeries(c.counterDir), w.records, 100000,
                    [&w](long long from, long long n) { return w.counterBatch(from, n); });

    auto series = openSeries(c.seriesDir);
    c.table.section("Reading (files in the page cache)");
    rawReads(c, *series);
    c.table.section("Condensed reads of the whole range");
    condensedReads(c, *series);

    // A day of the sparse series takes a tenth of the bytes, so its limit is a
    // tenth too; written a day at a time, its files are split down to days.
    const std::string sparseDir = c.dir.path("sparse");
    const int sparseLimit = kMaxFileSize / 10;
    appendInBatches(*openSeries(sparseDir, QMetaType::Double, sparseLimit), (w.records + 9) / 10,
                    kRecordsPerDay / 10,
                    [&w](long long from, long long n) {
                        Records out;
                        for (long long i = from * 10; i < std::min(w.records, (from + n) * 10); i += 10)
                            out.push_back({w.ts(i), QVariant(w.values[size_t(i)])});
                        return out;
                    });
    counts(c, *series, *openSeries(sparseDir, QMetaType::Double, sparseLimit));
    removeTree(sparseDir);
}

} // namespace bench
