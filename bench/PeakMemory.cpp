// Peak memory of one operation in a process of its own.

#include "PeakMemory.h"

#include "Cases.h"

#include <cstdio>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

namespace bench {

namespace {

long long residentKb()
{
    long long pages = 0;
    long long resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

long long maxResidentKb()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

std::string thisProgram()
{
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, size_t(n)) : std::string();
}

std::string megabytes(long long kb)
{
    return std::to_string((kb + 512) / 1024) + " MB";
}

} // namespace

Peak measurePeak(const std::string& mode, const std::string& dir, long long records)
{
    const std::string command =
        "'" + thisProgram() + "' --peak " + mode + " '" + dir + "' " + std::to_string(records);
    Peak peak;
    if (std::FILE* child = ::popen(command.c_str(), "r")) {
        peak.ok = std::fscanf(child, "%lld %lld %lld", &peak.beforeKb, &peak.peakKb, &peak.outputBytes) == 3;
        peak.ok = ::pclose(child) == 0 && peak.ok;
    }
    return peak;
}

int runPeakChild(const std::string& mode, const std::string& dir, long long records)
{
    Peak peak;
    bool ok = false;
    if (mode == "read") {
        auto series = openSeries(dir);
        Records out;
        int noLimit = 0;
        peak.beforeKb = residentKb();
        ok = series->readDataRecords(request("", 0), {}, Kel::TSFileStorage::TS_FIRST_RECORD,
                                     Kel::TSFileStorage::TS_LAST_RECORD, out, false, noLimit);
        peak.peakKb = maxResidentKb();
        peak.outputBytes = (long long)(out.capacity() * sizeof(Record));
    } else if (mode == "append") {
        const Workload work(records);
        Records batch = work.batch(0, records);
        peak.outputBytes = (long long)(batch.capacity() * sizeof(Record));
        auto series = openSeries(dir);
        peak.beforeKb = residentKb();
        ok = series->writeDataRecords(std::move(batch), false, false);
        peak.peakKb = maxResidentKb();
    }
    std::printf("%lld %lld %lld\n", peak.beforeKb, peak.peakKb, peak.outputBytes);
    return ok ? 0 : 1;
}

std::string describe(const Peak& peak, const char* operation, const char* output)
{
    if (!peak.ok)
        return std::string(operation) + ": not measured";
    return std::string(operation) + ": peak RSS " + megabytes(peak.peakKb) + " = " + megabytes(peak.beforeKb) +
           " before it + " + megabytes(peak.peakKb - peak.beforeKb) + " during it; " + output + " " +
           megabytes(peak.outputBytes / 1024);
}

} // namespace bench
