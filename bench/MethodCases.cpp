// Every method of the engine over the whole range, hourly, as input records
// a second beside the hourly arithmetic mean of the same run: a report that
// asks for medians or meter consumption should not wait much longer than
// one that asks for means. The sampling methods are read plain and with
// linear interpolation, the extremes also as one average value, and the two
// difference methods run on the counter series.

#include "Cases.h"

namespace bench {

namespace {

struct MethodCase {
    const char* key;
    const char* method;
    bool onCounter;
};

constexpr MethodCase kMethods[] = {
    {"m-prevnext", "prevNext", false},       {"m-prevnext-linear", "prevNextLinear", false},
    {"m-prev", "prev", false},               {"m-next", "next", false},
    {"m-minmax", "minMax", false},           {"m-minmax-average", "minMaxAverage", false},
    {"m-min", "min", false},                 {"m-max", "max", false},
    {"m-sum", "sum", false},                 {"m-sum-linear", "sumLinear", false},
    {"m-meang", "meanG", false},             {"m-meanh", "meanH", false},
    {"m-means", "meanS", false},             {"m-median", "median", false},
    {"m-mode", "mode", false},               {"m-count", "count", false},
    {"m-fill", "linearFill", false},         {"m-diff", "diffSum", true},
    {"m-diffctr", "diffCtrUpCleanedSum", true},
};

Rates hourly(Context& c, Kel::TSFileStorage& series, const char* method)
{
    const auto param = request(method, 3600);
    Records out;
    return repeat(c.plan, double(c.work.records), [&](int) {
        out.clear();
        int noLimit = 0;
        Stopwatch clock;
        clock.start();
        const bool ok = series.readDataRecords(param, {}, c.work.t0, c.work.lastTs(), out, false, noLimit);
        clock.stop();
        check(ok && !out.empty(), std::string("hourly ") + method);
        return clock.seconds();
    });
}

} // namespace

void runMethodCases(Context& c)
{
    auto series = openSeries(c.seriesDir);
    auto counter = openSeries(c.counterDir);
    c.table.section("Every method, hourly over the whole range (input records/s)");
    c.table.add({"m-meana", "meanA (the reference)", hourly(c, *series, "meanA"), "", "", "", "meanA"});
    for (const MethodCase& m : kMethods) {
        c.table.add({m.key, m.method, hourly(c, m.onCounter ? *counter : *series, m.method), "m-meana", "",
                     m.onCounter ? "of the counter" : "", ""});
        c.table.target({m.key, "m-meana", 0.25});
    }
}

} // namespace bench
