// The companion logs a batch writes after its records: the back-filled
// timestamps ("P") and the values that overwrites replaced ("O"). Each is a
// series of its own beside the series, written through the storage's own
// batch writer; a failure there is logged by that writer and does not undo
// the batch.
#pragma once

#include "TSFileStorage.h"

#include <vector>

namespace Kel::detail {

// Logs back-filled timestamps in "P", an append-only series whose values are
// the timestamps of the series that were written at or before its end, stamped
// with the time of the write (to the second). The first gets that time, or one
// ms later when "P" already holds a record at or after it; all others one ms
// later, side by side.
void logBackfill(TSFileStorage& series, const std::vector<long long>& backfilled);

// Keeps replaced values in "O": one record per write time (ms), holding a map
// from the decimal timestamp of each overwritten record to the value it held
// before. Each overwrite adds its entry in turn: a record overwritten twice
// in one batch keeps the value that the second overwrite replaced.
void logOverwritten(TSFileStorage& series, const std::vector<Interpolate::DataRecord>& overwritten);

} // namespace Kel::detail
