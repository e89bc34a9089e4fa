// PeakMemory: the peak resident memory of one operation, taken from
// getrusage in a process that does nothing else: this program started again
// with "--peak MODE DIR RECORDS". Modes: "read" reads the whole series raw
// into a fresh vector; "append" writes the workload in one batch into a new
// series.
#pragma once

#include <string>

namespace bench {

struct Peak {
    long long beforeKb = 0;     // resident just before the operation
    long long peakKb = 0;       // the process's maximum, after it
    long long outputBytes = 0;  // the read's output vector, or the batch handed to the write
    bool ok = false;
};

Peak measurePeak(const std::string& mode, const std::string& dir, long long records);

// The started process's side: does the operation and prints its figures.
int runPeakChild(const std::string& mode, const std::string& dir, long long records);

std::string describe(const Peak& peak, const char* operation, const char* output);

} // namespace bench
