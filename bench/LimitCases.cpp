// The references that do not depend on the library: the physical limit for
// the workload's bytes (write(2) and read(2) of hand-encoded day files) and
// the bound of any reader's output, appending the same number of DataRecords
// to a vector.

#include "Cases.h"
#include "DayFiles.h"

#include <cmath>
#include <filesystem>

namespace bench {

namespace {

// Out of line, like the library's code it bounds.
__attribute__((noinline)) double appendToVector(const Workload& work, Records& out)
{
    Stopwatch clock;
    clock.start();
    for (long long i = 0; i < work.records; ++i)
        out.push_back({work.ts(i), QVariant(work.values[size_t(i)])});
    clock.stop();
    return clock.seconds();
}

} // namespace

void runLimitCases(Context& c)
{
    const Workload& w = c.work;
    const double n = double(w.records);
    c.limitDir = c.dir.path("limit");

    c.table.section("Limit and bounds");
    c.table.add({"write-limit", "write(2) of day files in 1 MiB chunks",
                 repeat(c.plan, n, [&](int) {
                     removeTree(c.limitDir);
                     std::filesystem::create_directories(c.limitDir);
                     return writeDayFiles(w, c.limitDir);
                 }),
                 "", "", "", "write(2)"});

    double expectedSum = 0.0;
    for (double v : w.values)
        expectedSum += v;
    c.table.add({"read-limit", "read(2) of day files + decode", repeat(c.plan, n, [&](int) {
                     const DayFilesRead read = readDayFiles(c.limitDir, w.days());
                     check(read.records == w.records && std::fabs(read.sum - expectedSum) <= 1e-9 * expectedSum,
                           "read(2) of day files");
                     return read.seconds;
                 }),
                 "", "", "", "read+decode"});

    Records used;
    appendToVector(w, used);
    c.table.add({"used-bound", "append DataRecords to a used vector", repeat(c.plan, n, [&](int) {
                     used.clear();
                     return appendToVector(w, used);
                 }),
                 "", "", "capacity kept from an earlier fill", "used vector"});
    used = Records();
    c.table.add({"fresh-bound", "append DataRecords to a fresh vector", repeat(c.plan, n, [&](int) {
                     Records fresh;
                     return appendToVector(w, fresh);
                 }),
                 "", "", "growth and first touch of its pages", "fresh vector"});
}

} // namespace bench
