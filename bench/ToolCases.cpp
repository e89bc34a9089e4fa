// The tool's own speed: `kelts write` importing and `kelts read` exporting
// 2,000,000 CSV rows, beside the sqlite3 shell's .import and -csv on the
// same rows. Both run as the operator runs them, a process each, reading a
// file and writing to /dev/null; kelts prints ISO times, sqlite3 the plain
// integers it holds. Without the sqlite3 shell the cases are left out.

#include "Cases.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace bench {

namespace {

constexpr long long kToolRows = 2000000;

std::string quoted(const std::string& path)
{
    return "'" + path + "'";
}

// Runs a shell command, timed; a command that fails ends the run.
double timed(const std::string& command)
{
    Stopwatch clock;
    clock.start();
    const int status = std::system(command.c_str());
    clock.stop();
    check(status == 0, "command: " + command);
    return clock.seconds();
}

long long linesOf(const std::string& path)
{
    std::ifstream in(path);
    long long lines = 0;
    for (std::string line; std::getline(in, line);)
        ++lines;
    return lines;
}

} // namespace

void runToolCases(Context& c)
{
#ifdef KELTS_BINARY
    if (std::system("command -v sqlite3 >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "tool cases left out: no sqlite3 shell (make bench installs it)\n");
        return;
    }
    const Workload& w = c.work;
    const long long rows = std::min(kToolRows, w.records);
    const std::string csv = c.dir.path("tool-input.csv");
    {
        std::ofstream out(csv);
        char line[64];
        for (long long i = 0; i < rows; ++i) {
            const int n = std::snprintf(line, sizeof line, "%lld,%.17g\n", w.ts(i), w.values[size_t(i)]);
            out.write(line, n);
        }
    }
    const std::string kelts = KELTS_BINARY;
    const std::string series = c.dir.path("tool-series");
    const std::string db = c.dir.path("tool.db");
    const std::string quiet = " >/dev/null 2>&1";
    const auto keltsWrite = [&](int) {
        removeTree(series);
        return timed(kelts + " write " + quoted(series) + " --type double < " + quoted(csv) + quiet);
    };
    const auto sqliteImport = [&](int) {
        std::remove(db.c_str());
        return timed("sqlite3 " + quoted(db) + " -cmd 'CREATE TABLE t(ts INTEGER PRIMARY KEY, v REAL)'" +
                     " '.import --csv " + csv + " t'" + quiet);
    };
    const std::string readArgs = " read " + quoted(series) + " --type double --from first --to last";
    const std::string selectArgs = " -csv " + quoted(db) + " 'SELECT ts, v FROM t ORDER BY ts'";

    c.table.section("The tool, 2,000,000 CSV rows (rows/s)");
    c.table.add({"tool-write", "kelts write (import)", repeat(c.plan, double(rows), keltsWrite), "", "sqlite-import",
                 "", ""});
    c.table.add({"sqlite-import", "sqlite3 .import", repeat(c.plan, double(rows), sqliteImport), "", "", "",
                 "sqlite3 .import"});
    // Each export holds a header line and every row once.
    const std::string exported = c.dir.path("tool-export.csv");
    timed(kelts + readArgs + " > " + quoted(exported));
    check(linesOf(exported) == rows + 1, "kelts read: every row");
    timed("sqlite3" + selectArgs + " > " + quoted(exported));
    check(linesOf(exported) == rows, "sqlite3 -csv: every row");
    std::remove(exported.c_str());
    c.table.add({"tool-read", "kelts read (export, ISO times)",
                 repeat(c.plan, double(rows), [&](int) { return timed(kelts + readArgs + quiet); }), "",
                 "sqlite-export", "", ""});
    c.table.add({"sqlite-export", "sqlite3 -csv (export)",
                 repeat(c.plan, double(rows), [&](int) { return timed("sqlite3" + selectArgs + quiet); }), "", "",
                 "", "sqlite3 -csv"});
    c.table.target({"tool-write", "sqlite-import", 2.0});
    c.table.target({"tool-read", "sqlite-export", 2.0});
    removeTree(series);
    std::remove(db.c_str());
    std::remove(csv.c_str());
#else
    (void)c;
#endif
}

} // namespace bench
