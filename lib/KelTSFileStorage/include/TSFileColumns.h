// Raw records in columns, for clients that take arrays (the Python module):
// the records of a range decoded from the files straight into a column of
// times and a column of values, without a QVariant per record.
#pragma once

#include "KelTSFileStorageGlobal.h"

#include <vector>

namespace Kel {

class TSFileStorage;

// Times in milliseconds since 1970 UTC. Values of Float and Double series go
// to reals (a Float value as the float it is, widened); bool and the whole
// number types to wholes (true as 1, ULongLong as its bit pattern).
struct RawColumns {
    std::vector<long long> timestamps;
    std::vector<double> reals;
    std::vector<long long> wholes;
};

// Appends the raw records of [start, end] of a series of a fixed-length
// value type to columns: the records, in the order, that readDataRecords
// gives for a raw read of the same range (start and end may be the
// storage's TS_NOW, TS_FIRST_RECORD and TS_LAST_RECORD). False, logged, for
// text and variant series and when the read failed; what was read before a
// failure stays in columns.
KELTS_EXPORT bool readRawColumns(TSFileStorage& series, long long start, long long end, RawColumns& columns);

} // namespace Kel
