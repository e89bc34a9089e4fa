// Where the share of a sorted batch that falls into one storage file goes,
// decided from the batch and the timestamps of the records stored there,
// before a byte is written. Nothing here touches a file: the writer hands in
// a way to read a stored record's timestamp, and applies the plan.
//
// A run is a record of the batch and the records after it with the same
// timestamp (a write that only appends, appendOnly, takes each record as a
// run of its own). A plan appends when every run lies after the last stored
// record, patches in place when each run either meets a stored record or
// lies after them all, and rewrites the file when a run falls between two
// stored records.
#pragma once

#include "Interpolate.h"
#include "RecordCodec.h"

#include <vector>

namespace Kel::detail {

struct Placement {
    const Interpolate::DataRecord* run;
    const Interpolate::DataRecord* runEnd;
    qint64 index;  // lower bound of the run's timestamp among the stored records
    bool stored;   // a stored record has that timestamp
};

struct WritePlan {
    enum class Kind { Append, Patch, Rewrite };
    Kind kind = Kind::Append;
    std::vector<Placement> places;  // for Patch and Rewrite, in batch order
};

inline const Interpolate::DataRecord* runEnd(const Interpolate::DataRecord* first,
                                             const Interpolate::DataRecord* last, bool appendOnly)
{
    const Interpolate::DataRecord* r = first + 1;
    if (!appendOnly)
        while (r != last && r->timestamp == first->timestamp)
            ++r;
    return r;
}

// Plans the records [first, last) of a batch, sorted by timestamp, for a
// file of count stored records whose timestamps timestampAt(i) gives.
template <typename TimestampAt>
WritePlan planWrite(const Interpolate::DataRecord* first, const Interpolate::DataRecord* last, qint64 count,
                    TimestampAt timestampAt, bool appendOnly)
{
    WritePlan plan;
    if (appendOnly || count == 0 || timestampAt(count - 1) < first->timestamp)
        return plan;
    bool inserts = false;
    qint64 from = 0;
    for (const Interpolate::DataRecord* run = first; run != last;) {
        const Interpolate::DataRecord* end = runEnd(run, last, appendOnly);
        const long long ts = run->timestamp;
        const qint64 index = firstIndexNotBefore(from, count, timestampAt, [ts](long long at) { return at < ts; });
        const bool stored = index < count && timestampAt(index) == ts;
        inserts = inserts || (!stored && index < count);
        plan.places.push_back({run, end, index, stored});
        from = index;
        run = end;
    }
    plan.kind = inserts ? WritePlan::Kind::Rewrite : WritePlan::Kind::Patch;
    return plan;
}

} // namespace Kel::detail
