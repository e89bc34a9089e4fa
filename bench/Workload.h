// Workload: the series every case works on (N records of a Double series,
// one per second from 2024-01-01T00:00:00Z, values 20 + 5 sin(i / 3600)
// computed once; a meter counter of the same length), and the scratch
// directory that holds the files of one run.
#pragma once

#include "Interpolate.h"

#include <string>
#include <vector>

namespace bench {

using Record = Kel::Interpolate::DataRecord;
using Records = std::vector<Record>;

constexpr long long kSecondMs = 1000;
constexpr long long kHourMs = 3600 * kSecondMs;
constexpr long long kDayMs = 24 * kHourMs;
constexpr long long kRecordsPerDay = kDayMs / kSecondMs;

struct Workload {
    explicit Workload(long long records);

    long long ts(long long i) const { return t0 + i * kSecondMs; }
    long long lastTs() const { return ts(records - 1); }
    long long days() const { return (records + kRecordsPerDay - 1) / kRecordsPerDay; }
    // A meter that counts 2.5 units a second.
    double counter(long long i) const { return 2.5 * double(i); }

    // Records [from, from + n) of the series, and of the counter.
    Records batch(long long from, long long n) const;
    Records counterBatch(long long from, long long n) const;

    // `count` distinct record indices below records - 1, in random order, the
    // same for the same seed.
    std::vector<long long> randomIndices(long long count, unsigned seed) const;

    const long long records;
    const long long t0 = 1704067200000LL;  // 2024-01-01T00:00:00Z
    std::vector<double> values;
};

// A fresh directory under parent, removed with everything in it at the end
// unless kept.
class DataDir {
public:
    DataDir(const std::string& parent, bool keep);
    ~DataDir();
    DataDir(const DataDir&) = delete;
    DataDir& operator=(const DataDir&) = delete;

    std::string path(const std::string& name) const { return root + "/" + name; }
    const std::string& rootPath() const { return root; }
    // The type and device of the file system that holds the directory.
    std::string fileSystem() const;

private:
    std::string root;
    bool keep;
};

void removeTree(const std::string& path);

} // namespace bench
