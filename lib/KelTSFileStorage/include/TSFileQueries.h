// Lookups beside the storage's own, for clients that need the exact answer
// where the storage's lookups keep their historical rules: findPrevDataRecord
// may answer with the first record at or after the instant, and consults an
// earlier file only where no file holds the instant.
#pragma once

#include "Interpolate.h"
#include "KelTSFileStorageGlobal.h"

namespace Kel {

class TSFileStorage;

// The last record of the series stamped before ts, searched exactly across
// earlier files by the bytes each record takes. False, with rec untouched,
// when there is none or a file on the way could not be opened or read
// (logged).
KELTS_EXPORT bool lastRecordBefore(TSFileStorage& series, long long ts, Interpolate::DataRecord& rec);

} // namespace Kel
