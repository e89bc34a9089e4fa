// The Python module's speed: a raw read of the run's series into numpy and a
// write of as many records from numpy, each timed inside one python3
// process (after the import), beside the library's own raw read and
// one-batch append of this run. Left out where the module was not built.

#include "Cases.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace bench {

void runPythonCases(Context& c)
{
#ifdef KELTS_PYTHON_DIR
    const Workload& w = c.work;
    const std::string script = R"(
import sys, time
import numpy as np
import kelts
series_dir, copy_dir, n = sys.argv[1], sys.argv[2], int(sys.argv[3])
s = kelts.Series(series_dir, "double", 2000000)
t = time.perf_counter(); times, values = s.read(); read = time.perf_counter() - t
assert len(times) == n, (len(times), n)
w = kelts.Series(copy_dir, "double", 2000000)
t = time.perf_counter(); w.write(times, values); write = time.perf_counter() - t
print(read, write)
)";
    const std::string scriptPath = c.dir.path("python-case.py");
    std::ofstream(scriptPath) << script;
    c.table.section("Python: the module kelts, numpy arrays");
    const double n = double(w.records);
    Rates readRates, writeRates;
    std::vector<double> reads, writes;
    for (int run = 0; run < std::min(c.plan.runs, 3); ++run) {
        const std::string copy = c.dir.path("python-copy-" + std::to_string(run));
        std::FILE* pipe = ::popen(("PYTHONPATH='" KELTS_PYTHON_DIR "' /usr/bin/python3 '" + scriptPath + "' '" +
                                   c.seriesDir + "' '" + copy + "' " + std::to_string(w.records))
                                      .c_str(),
                                  "r");
        check(pipe != nullptr, "python3");
        double readSeconds = 0, writeSeconds = 0;
        const int got = std::fscanf(pipe, "%lf %lf", &readSeconds, &writeSeconds);
        check(::pclose(pipe) == 0 && got == 2, "the Python case ran");
        reads.push_back(n / readSeconds);
        writes.push_back(n / writeSeconds);
        removeTree(copy);
    }
    c.table.add({"python-read", "raw read into numpy (whole range)", summarize(reads), "", "read-fresh", "at least 50M records/s asked", ""});
    c.table.add({"python-write", "write from numpy, one batch", summarize(writes), "", "append-one", "times and values handed over as arrays", ""});
#else
    (void)c;
#endif
}

} // namespace bench
