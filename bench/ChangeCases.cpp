// Changing the series in place: 10,000 random inserts between existing
// records (one batch, and 100 batches of 100) beside SQLite's inserts of the
// same rows, the same one-batch inserts into a series held in one large
// year file, 10,000 overwrites that keep the replaced values, a gap of
// 10,000 records back-filled with the log of back-filled times, and the
// delete of one day. Each run inserts at its own millisecond offsets, so
// every insert of every run is a new record; overwrites and back-fills
// restore nothing, the deleted day is written back untimed.

#include "Cases.h"

namespace bench {

namespace {

constexpr long long kChanges = 10000;
// A size limit that keeps the whole workload in one year file.
constexpr int kOneFileSize = 1000000000;
// The runs of the two insert cases take offsets 1 + 100 * slot + k % 99 ms
// after their second, slot 0 to 4 for one batch and 5 to 9 for small ones.
constexpr int kMaxRuns = 5;

long long changes(const Workload& w)
{
    return std::min(kChanges, w.records / 10);
}

Records insertRecords(const Workload& w, int slot)
{
    const std::vector<long long> at = w.randomIndices(changes(w), 100 + unsigned(slot));
    Records out;
    for (size_t k = 0; k < at.size(); ++k)
        out.push_back({w.ts(at[k]) + 1 + 100 * slot + (long long)(k % 99), QVariant(w.values[size_t(at[k])])});
    return out;
}

std::vector<Row2> rowsOf(const Records& records)
{
    std::vector<Row2> rows;
    for (const Record& r : records)
        rows.push_back({r.timestamp, r.value.toDouble()});
    return rows;
}

// Writes the records in `batches` equal batches; returns the seconds.
double write(Kel::TSFileStorage& series, const Records& records, int batches, bool backfill, bool overwritten)
{
    const size_t size = records.size() / size_t(batches);
    Stopwatch clock;
    for (size_t first = 0; first < records.size(); first += size) {
        Records batch(records.begin() + long(first), records.begin() + long(std::min(records.size(), first + size)));
        clock.start();
        const bool ok = series.writeDataRecords(std::move(batch), backfill, overwritten);
        clock.stop();
        check(ok, "write of changes");
    }
    return clock.seconds();
}

} // namespace

void runChangeCases(Context& c)
{
    const Workload& w = c.work;
    const double n = double(changes(w));
    RunPlan plan = c.plan;
    plan.runs = std::min(plan.runs, kMaxRuns);
    auto series = openSeries(c.seriesDir);

    c.table.section("Changing the series (10,000 records)");
    c.table.add({"insert-one", "random inserts, one batch", repeat(plan, n, [&](int run) {
                     return write(*series, insertRecords(w, run), 1, false, false);
                 }),
                 "", "sqlite-insert-one", "", ""});
    const std::string yearDir = c.dir.path("year-file");
    appendInBatches(*openSeries(yearDir, QMetaType::Double, kOneFileSize), w.records, w.records,
                    [&w](long long from, long long count) { return w.batch(from, count); });
    auto yearSeries = openSeries(yearDir, QMetaType::Double, kOneFileSize);
    c.table.add({"insert-year", "random inserts, one batch, one year file", repeat(plan, n, [&](int run) {
                     return write(*yearSeries, insertRecords(w, run), 1, false, false);
                 }),
                 "", "sqlite-insert-one", "the slowest run counts", ""});
    yearSeries.reset();
    removeTree(yearDir);
    c.table.add({"insert-small", "random inserts, 100 batches of 100", repeat(plan, n, [&](int run) {
                     return write(*series, insertRecords(w, kMaxRuns + run), 100, false, false);
                 }),
                 "", "sqlite-insert-small", "", ""});
    c.table.add({"sqlite-insert-one", "SQLite: random inserts, one transaction", repeat(plan, n, [&](int run) {
                     return c.sqlite->insert(rowsOf(insertRecords(w, run)), 1);
                 }),
                 "", "", "", "SQLite"});
    c.table.add({"sqlite-insert-small", "SQLite: random inserts, 100 transactions", repeat(plan, n, [&](int run) {
                     return c.sqlite->insert(rowsOf(insertRecords(w, kMaxRuns + run)), 100);
                 }),
                 "", "", "", "SQLite"});

    const std::vector<long long> overwriteAt = w.randomIndices(changes(w), 99);
    c.table.add({"overwrite", "overwrites, collectOverwritten", repeat(plan, n, [&](int run) {
                     Records records;
                     for (long long i : overwriteAt)
                         records.push_back({w.ts(i), QVariant(w.values[size_t(i)] + 1.0 + run)});
                     return write(*series, records, 1, false, true);
                 }),
                 "", "", "one batch; a warning logged per record", ""});

    const long long gapFirst = w.records / 2 - changes(w) / 2;
    c.table.add({"backfill", "back-fill of a gap, collectBackfill", repeat(plan, n, [&](int) {
                     check(series->deleteDataRecords(w.ts(gapFirst), w.ts(gapFirst + changes(w) - 1)), "gap");
                     return write(*series, w.batch(gapFirst, changes(w)), 1, true, false);
                 }),
                 "", "", "one batch", ""});

    const long long day = w.days() / 2;
    const long long dayFirst = day * kRecordsPerDay;
    const long long dayRecords = std::min(kRecordsPerDay, w.records - dayFirst);
    c.table.add({"delete-day", "delete of one middle day", repeat(plan, double(dayRecords), [&](int) {
                     Stopwatch clock;
                     clock.start();
                     const bool ok = series->deleteDataRecords(w.ts(dayFirst), w.ts(dayFirst) + kDayMs - 1);
                     clock.stop();
                     check(ok, "delete of a day");
                     check(series->writeDataRecords(w.batch(dayFirst, dayRecords), false, false), "day written back");
                     return clock.seconds();
                 }),
                 "", "", "", ""});
}

} // namespace bench
