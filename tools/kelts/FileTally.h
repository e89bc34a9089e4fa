// The files of a series as the library's lookups find them: how many of
// each period, and the bytes they and their side files take.
#pragma once

#include "TSFileStorage.h"

#include <QString>

namespace kelts {

struct FileTally {
    long long filesByDepth[5] = {};   // year, month, day, hour, minute files
    long long files = 0;
    long long sideFiles = 0;
    long long bytes = 0;              // storage files and side files
};

FileTally tallyFiles(Kel::TSFileStorage& storage);

// "1 month file, 7 day files"
QString describeFiles(const FileTally& tally);
// "7,257,600 bytes (6.9 MiB)"; short: "6.9 MiB"
QString describeBytes(long long bytes, bool brief = false);

} // namespace kelts
