// Harness: the clock, repeated timed runs of one case and the summary of
// their rates, and the short number format of the table.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

// Seconds on the steady clock.
double now();

// Adds up the time between start() and stop(), so that a run can leave its
// untimed preparation out.
class Stopwatch {
public:
    void start() { begun = now(); }
    void stop() { total += now() - begun; }
    double seconds() const { return total; }

private:
    double begun = 0.0;
    double total = 0.0;
};

// Items per second over the runs of one case.
struct Rates {
    double median = 0.0;
    double min = 0.0;
    double max = 0.0;
    int runs = 0;
};

// The median of an even number of runs is the lower middle one: a rate that
// was really measured.
Rates summarize(std::vector<double> rates);

// How often a case runs: `runs` times, or `slowRuns` times when its first
// run took longer than `slowSeconds`.
struct RunPlan {
    int runs = 5;
    int slowRuns = 3;
    double slowSeconds = 2.0;
};

// Runs run(i) for i = 0, 1, ... as the plan says; each returns the seconds
// it timed, during which `items` were handled. Dirty pages are flushed to
// the device before each run, so that no run pays for the writeback of
// files written before it.
Rates repeat(const RunPlan& plan, double items, const std::function<double(int)>& run);

// "182M", "27.1k", "950": three significant digits and a unit prefix.
std::string shortNumber(double value);

} // namespace bench
