// Pieces that several parts of the interpolation engine share: the messages
// with which a handler ends a read or an interval's delivery, the count
// record of count-only reads, the plain values that a reader may add to an
// interval, and the step past intervals that yield nothing.
#pragma once

#include "Interpolate.h"

#include <cstring>
#include <stdexcept>
#include <vector>

namespace Kel::detail {

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

// For some methods a record inside the current interval only adds to the
// interval's sum and count: a reader may hand such a record to the engine as
// its plain value instead of through handleNextRawRecord. The adder of the
// engine's method, or null when the engine needs every record whole (its
// method keeps records or values, or a difference method comes first). The
// caller checks that the engine takes records (acceptsRecords) and that the
// record lies in the read range and before intervalNext.
using ValueAdder = void (*)(Interpolate& e, double value);
ValueAdder valueAdderOf(const Interpolate& e);

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
