// A series of QString values (the first 1,000,000 values of the workload as
// text, "21.37"): appended in batches of 100,000 and read back whole. Their
// values live in the side files, serialised as QVariants.

#include "Cases.h"

namespace bench {

namespace {

constexpr long long kStrings = 1000000;
constexpr long long kBatch = 100000;

Records stringBatch(const Workload& w, long long from, long long n)
{
    Records out;
    out.reserve(size_t(n));
    for (long long i = from; i < from + n; ++i)
        out.push_back({w.ts(i), QVariant(QString::number(w.values[size_t(i)], 'f', 2))});
    return out;
}

} // namespace

void runStringCases(Context& c)
{
    const Workload& w = c.work;
    const long long n = std::min(kStrings, w.records);
    const std::string dir = c.dir.path("strings");
    const auto batch = [&w](long long from, long long count) { return stringBatch(w, from, count); };

    c.table.section("QString values (1,000,000)");
    c.table.add({"string-append", "append, batches of 100,000", repeat(c.plan, double(n), [&](int) {
                     removeTree(dir);
                     return appendInBatches(*openSeries(dir, QMetaType::QString), n, kBatch, batch);
                 }),
                 "write-limit", "", "", ""});

    auto series = openSeries(dir, QMetaType::QString);
    const auto raw = request("", 0);
    Records out;
    c.table.add({"string-read", "raw read, whole range, used vector", repeat(c.plan, double(n), [&](int) {
                     out.clear();
                     int noLimit = 0;
                     Stopwatch clock;
                     clock.start();
                     const bool ok = series->readDataRecords(raw, {}, w.t0, w.ts(n - 1), out, false, noLimit);
                     clock.stop();
                     check(ok && out.size() == size_t(n) &&
                               out.back().value.toString() == QString::number(w.values[size_t(n - 1)], 'f', 2),
                           "QString read");
                     return clock.seconds();
                 }),
                 "read-limit", "", "", ""});
}

} // namespace bench
