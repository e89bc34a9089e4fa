// The workload's records and the scratch directory.

#include "Workload.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <sstream>
#include <stdexcept>

namespace bench {

namespace fs = std::filesystem;

Workload::Workload(long long records) : records(records), values(size_t(records))
{
    for (long long i = 0; i < records; ++i)
        values[size_t(i)] = 20.0 + 5.0 * std::sin(double(i) / 3600.0);
}

Records Workload::batch(long long from, long long n) const
{
    Records out;
    out.reserve(size_t(n));
    for (long long i = from; i < from + n; ++i)
        out.push_back({ts(i), QVariant(values[size_t(i)])});
    return out;
}

Records Workload::counterBatch(long long from, long long n) const
{
    Records out;
    out.reserve(size_t(n));
    for (long long i = from; i < from + n; ++i)
        out.push_back({ts(i), QVariant(counter(i))});
    return out;
}

std::vector<long long> Workload::randomIndices(long long count, unsigned seed) const
{
    std::vector<long long> all(size_t(records - 1));
    std::iota(all.begin(), all.end(), 0LL);
    std::mt19937_64 random(seed);
    count = std::min<long long>(count, records - 1);
    // The first `count` places of a partial Fisher-Yates shuffle.
    for (long long i = 0; i < count; ++i)
        std::swap(all[size_t(i)], all[size_t(i + (long long)(random() % (unsigned long long)(records - 1 - i)))]);
    all.resize(size_t(count));
    return all;
}

DataDir::DataDir(const std::string& parent, bool keep) : keep(keep)
{
    std::string pattern = parent + "/kelts-bench-XXXXXX";
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("cannot create a directory under " + parent);
    root = pattern;
}

DataDir::~DataDir()
{
    if (!keep)
        removeTree(root);
}

std::string DataDir::fileSystem() const
{
    // The longest mount point that is a prefix of the directory holds it.
    const std::string where = fs::canonical(root).string();
    std::ifstream mounts("/proc/self/mounts");
    std::string line, best, bestType, bestDevice;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string device, point, type;
        fields >> device >> point >> type;
        const bool holds = where.compare(0, point.size(), point) == 0 &&
                           (where.size() == point.size() || point == "/" || where[point.size()] == '/');
        if (holds && point.size() >= best.size()) {
            best = point;
            bestType = type;
            bestDevice = device;
        }
    }
    return bestType.empty() ? "unknown" : bestType + " on " + bestDevice + " (mounted at " + best + ")";
}

void removeTree(const std::string& path)
{
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

} // namespace bench
