// kelts_bench: the library measured against the physical limit for the same
// bytes and against SQLite as the peer, all in one run, seconds apart, so
// that the ratios hold however loaded the machine is. Prints one table of
// records per second (median, min .. max of repeated runs), the ratios, the
// targets, and the peak memory of a whole read and of a one-batch append.
//
//   kelts_bench [--records N] [--runs N] [--dir PARENT] [--keep] [--stages a,b,...]
//
// --stages runs only the named stages (limits, appends, many, reads,
// methods, lookups, peak, changes, strings, tool, serve, python); the appends stage, which
// leaves the series and SQLite's table that most others use, always runs.

#include "Cases.h"
#include "PeakMemory.h"

#include "KelLogger.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <stdexcept>
#include <thread>

namespace {

using namespace bench;

struct Options {
    long long records = 10000000;
    int runs = 5;
    std::string parent = "/tmp";
    bool keep = false;
    std::string stages;  // comma-separated; empty for all
};

Options parse(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--records" && hasValue)
            o.records = std::atoll(argv[++i]);
        else if (arg == "--runs" && hasValue)
            o.runs = std::atoi(argv[++i]);
        else if (arg == "--dir" && hasValue)
            o.parent = argv[++i];
        else if (arg == "--keep")
            o.keep = true;
        else if (arg == "--stages" && hasValue)
            o.stages = "," + std::string(argv[++i]) + ",";
        else
            throw std::runtime_error("usage: kelts_bench [--records N] [--runs N] [--dir PARENT] [--keep] [--stages a,b,...]");
    }
    if (o.records < 10000 || o.runs < 1)
        throw std::runtime_error("--records takes at least 10000, --runs at least 1");
    return o;
}

// The library logs every overwrite as a warning; the host's sink would
// take them. Here they are counted, and a failure is shown.
class LogCounter {
public:
    LogCounter()
    {
        Kel::Logger::instance().setSink([this](const Kel::LogEntry& e) {
            ++byLevel[e.level];
            if (e.level <= 2 && byLevel[e.level] <= 3)
                std::fprintf(stderr, "library failure: %s\n", e.message.toLocal8Bit().constData());
        });
    }
    ~LogCounter() { Kel::Logger::instance().setSink({}); }
    std::string summary() const
    {
        std::string text;
        for (const auto& [level, count] : byLevel)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " +
                    Kel::Logger::levelName(level).toStdString();
        return text.empty() ? "none" : text;
    }

private:
    std::map<int, long long> byLevel;
};

std::string loadAverage()
{
    std::string one, five, fifteen;
    std::ifstream("/proc/loadavg") >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

void addTargets(Table& t)
{
    t.target({"append-batches", "write-limit", 0.25});
    t.target({"read-used", "used-bound", 0.50});
    t.target({"read-used", "sqlite-scan", 5.0});
    t.target({"mean-hourly", "read-limit", 0.10});
    t.target({"mean-hourly", "sqlite-group", 30.0});
    t.target({"insert-one", "sqlite-insert-one", 2.0});
    t.target({"insert-year", "sqlite-insert-one", 2.0, true});
    t.target({"read-short", "sqlite-short", 3.0});
    t.target({"last", "sqlite-last", 0.1});
    t.target({"find", "sqlite-find", 0.5});
    t.target({"find-prev", "sqlite-prev", 0.5});
    // Ten times the records in the same files cost less than twice the time.
    t.target({"count-raw", "count-sparse", 0.5});
    // The module reads into fresh arrays, as the library into a fresh vector.
    t.target({"python-read", "read-fresh", 0.5});
    t.target({"python-write", "append-one", 0.5});
}

// A read holds its output and a bounded buffer, never the series.
constexpr long long kReadBufferBoundKb = 32 * 1024;

std::string readMemoryTarget(const Peak& p)
{
    const bool met = p.ok && p.peakKb - p.beforeKb <= p.outputBytes / 1024 + kReadBufferBoundKb;
    return std::string("  target: a read takes its output + at most 32 MB: ") + (met ? "met" : "MISSED");
}

bool selected(const Options& o, const char* name)
{
    return o.stages.empty() || o.stages.find("," + std::string(name) + ",") != std::string::npos ||
           std::string(name) == "appends";
}

void stage(const Options& o, const char* name, void (*run)(Context&), Context& c)
{
    if (!selected(o, name))
        return;
    const double started = now();
    std::fprintf(stderr, "%-10s ...", name);
    std::fflush(stderr);
    run(c);
    std::fprintf(stderr, " %.0f s\n", now() - started);
}

int runAll(const Options& o)
{
    const LogCounter log;
    const Workload work(o.records);
    const DataDir dir(o.parent, o.keep);
    Context c{work, dir, RunPlan{}, Table{}, "", "", "", nullptr};
    c.plan.runs = o.runs;
    c.plan.slowRuns = std::min(o.runs, 3);
    const std::string loadBefore = loadAverage();
    const double started = now();

    stage(o, "limits", runLimitCases, c);
    stage(o, "appends", runWriteCases, c);
    stage(o, "many", runManySeriesCases, c);
    stage(o, "reads", runReadCases, c);
    stage(o, "methods", runMethodCases, c);
    stage(o, "lookups", runLookupCases, c);
    Peak readPeak, appendPeak;
    if (selected(o, "peak")) {
        std::fprintf(stderr, "peak memory ...\n");
        readPeak = measurePeak("read", c.seriesDir, o.records);
        appendPeak = measurePeak("append", dir.path("peak-append"), o.records);
        removeTree(dir.path("peak-append"));
    }
    stage(o, "changes", runChangeCases, c);
    stage(o, "strings", runStringCases, c);
    stage(o, "tool", runToolCases, c);
    stage(o, "serve", runServeCases, c);
    stage(o, "python", runPythonCases, c);

    std::printf("kelts_bench: %lld records of a Double series (%lld days), one a second from 2024-01-01\n",
                o.records, work.days());
    std::printf("data: %s, %s\n", dir.rootPath().c_str(), dir.fileSystem().c_str());
    std::printf("machine: %u CPUs, load average %s before, %s after; %d runs a case (%d when a run takes over %.0f s)\n\n",
                std::thread::hardware_concurrency(), loadBefore.c_str(), loadAverage().c_str(), c.plan.runs,
                c.plan.slowRuns, c.plan.slowSeconds);
    addTargets(c.table);
    c.table.print(stdout);
    if (selected(o, "peak")) {
        std::printf("\nPeak memory (getrusage max RSS of a process doing only this)\n  %s\n  %s\n",
                    describe(readPeak, "raw read, whole range, fresh vector", "the output vector holds").c_str(),
                    describe(appendPeak, "append, one batch", "the batch handed over holds").c_str());
        std::printf("%s\n", readMemoryTarget(readPeak).c_str());
    }
    std::printf("\nLog entries of the library: %s\nTotal time: %.0f s\n", log.summary().c_str(), now() - started);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        if (argc == 5 && std::strcmp(argv[1], "--peak") == 0) {
            const LogCounter quiet;
            return runPeakChild(argv[2], argv[3], std::atoll(argv[4]));
        }
        return runAll(parse(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kelts_bench: %s\n", e.what());
        return 1;
    }
}
