// DayFiles: the physical limit for the workload's bytes. The records of each
// day are encoded big-endian by hand into the bytes of a day file of the
// storage (a 4-byte offset in ms from the day's start, then the 8-byte
// double), written with write(2) in chunks of about 1 MiB, one file per day,
// and read back with read(2) into a page-aligned buffer and decoded. Nothing
// else happens: no directory tree, no lookup, no QVariant.
#pragma once

#include "Workload.h"

#include <string>

namespace bench {

constexpr int kDayRecordBytes = 12;

std::string dayFilePath(const std::string& dir, long long day);

// Writes the workload's day files into dir (which must exist); returns the
// seconds it took.
double writeDayFiles(const Workload& work, const std::string& dir);

struct DayFilesRead {
    double seconds = 0.0;
    long long records = 0;
    double sum = 0.0;  // of the values, so that nothing decoded goes unused
};

DayFilesRead readDayFiles(const std::string& dir, long long days);

} // namespace bench
