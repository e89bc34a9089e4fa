// Pieces that several parts of the interpolation engine share: the messages
// with which a handler ends a read or an interval's delivery, the count
// record of count-only reads, what a record adds to a mean or a count, the
// runs of plain records a reader may hand over, and the step past intervals
// that yield nothing.
#pragma once

#include "Interpolate.h"
#include "RecordCodec.h"

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace Kel::detail {

// What MEDIAN keeps of one interval at most (reaching it stops the read),
// and how many values MODE keeps before it counts them.
inline constexpr std::size_t kMaxMedianValuesPerInterval = 10000000;
inline constexpr std::size_t kModeValuesBeforeCounting = 1000000;

// Thrown as std::out_of_range and caught at the engine's entry points.
inline constexpr const char* kEndReached = "End reached";
inline constexpr const char* kLimitReached = "Limit reached";

inline bool isEndReached(const std::exception& e)
{
    return std::strcmp(e.what(), kEndReached) == 0;
}

inline bool isLimitReached(const std::exception& e)
{
    return std::strncmp(e.what(), kLimitReached, std::strlen(kLimitReached)) == 0;
}

// What a record inside the current interval adds, for the methods that
// take nothing else from it. A zero adds nothing to the sum of logarithms but
// counts (it acts as a value of 1); in the harmonic mean it drops out of the
// sum of reciprocals but counts as well.
inline void addToArithmeticMean(Interpolate& e, double v)
{
    ++e.recordCount;
    e.sum += v;
}

inline void addToGeometricMean(Interpolate& e, double v)
{
    ++e.recordCount;
    if (v != 0.0)
        e.sum += std::log(v);
}

inline void addToHarmonicMean(Interpolate& e, double v)
{
    ++e.recordCount;
    if (v != 0.0)
        e.sum += 1.0 / v;
}

inline void addToQuadraticMean(Interpolate& e, double v)
{
    ++e.recordCount;
    e.sum += v * v;
}

inline void addToCount(Interpolate& e, double)
{
    ++e.recordCount;
}

// Records that lie inside the current interval change only the engine's
// running state (a sum, a count, the last or the most extreme record, the
// values kept for a median): a reader of fixed-length values may hand them
// over a run at a time, straight from a block of the file, as timestamps and
// doubles, rather than one DataRecord each through handleNextRawRecord. The
// run ends at the first record outside [lo, hi] or at or past intervalNext,
// or where a method wants a record whole (the first record of a linear sum,
// a median or mode that reached its cap); that record then goes the usual
// way. The results are those of the usual way, record for record.
//
// True when the engine's method takes plain runs at all (every method but
// raw). The caller checks acceptsRecords before each run.
bool takesPlainRuns(const Interpolate& e);

// Takes the run of records from p on (n of them, in layout l, based at
// base); returns how many it took, 0 when the first must go the usual way.
qint64 takePlainRun(Interpolate& e, const uchar* p, qint64 n, const RecordLayout& l, long long base, long long lo,
                    long long hi);

// Moves past every interval boundary at or before ts without delivering
// anything.
inline void skipIntervalsThrough(Interpolate& e, long long ts)
{
    if (e.intervalMs > 0 && ts >= e.intervalNext)
        e.intervalNext += (ts - e.intervalNext) / e.intervalMs * e.intervalMs;
    while (ts >= e.intervalNext)
        e.incIntervalNextTimestamp();
}

// In count-only mode the first output record counts the results. at() keeps
// the range check: counting into an empty vector is an error the entry
// points catch and log.
inline void raiseCountRecord(std::vector<Interpolate::DataRecord>& out)
{
    QVariant& count = out.at(0).value;
    count = QVariant(count.toLongLong() + 1);
}

} // namespace Kel::detail
