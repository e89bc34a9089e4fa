// Drives an interpolation engine over an in-memory series the way the
// storage's reader does: getRange, the record before the range when asked,
// the records of the range, the record after it when asked, finalize.
#pragma once

#include "Interpolate.h"
#include "TestSupport.h"

#include <QString>

#include <vector>

namespace Kel::test {

using DataRecord = Interpolate::DataRecord;
using InterpolateParam = Interpolate::InterpolateParam;

inline InterpolateParam request(const char* method, long long intervalSeconds, bool alignRange = false,
                                int offsetMinFromUTC = 0)
{
    InterpolateParam p;
    p.method = QString::fromLatin1(method);
    p.interval = intervalSeconds;
    p.alignStartEndTimestamp = alignRange;
    p.offsetMinFromUTC = offsetMinFromUTC;
    return p;
}

struct Read {
    InterpolateParam param;
    std::vector<InterpolateParam> chain;
    long long start = 0;
    long long end = 0;
    QMetaType::Type type = QMetaType::Double;
    bool labelAtIntervalStart = false;
    bool countOnly = false;
    int limit = 0;               // the caller's resultCount on entry
    int resultCount = 0;         // and on return
    int recordsFed = 0;
};

// Runs one read over a series sorted by time and returns the engine's output.
inline std::vector<DataRecord> runRead(Read& read, const std::vector<DataRecord>& series)
{
    std::vector<DataRecord> out;
    if (series.empty())
        return out;
    read.resultCount = read.limit;
    Interpolate engine(read.param, read.chain, read.start, read.end, series.front().timestamp,
                       series.back().timestamp, &out, read.type, read.labelAtIntervalStart, read.resultCount,
                       read.countOnly);
    long long readStart = 0;
    long long readEnd = 0;
    const bool hasRange = engine.getRange(readStart, readEnd);
    const bool countKnown = read.countOnly && !out.empty() && out[0].timestamp == 0;
    if (hasRange && !countKnown) {
        const DataRecord* before = nullptr;
        for (const DataRecord& r : series)
            if (r.timestamp < readStart)
                before = &r;
        if (before && engine.needsPreviousDataRecords()) {
            engine.handleNextRawRecord(*before);
            ++read.recordsFed;
        }
        for (const DataRecord& r : series) {
            if (r.timestamp < readStart)
                continue;
            if (r.timestamp > readEnd) {
                if (engine.needsDataRecordAfterRangeEnd()) {
                    engine.handleNextRawRecord(r);
                    ++read.recordsFed;
                }
                break;
            }
            ++read.recordsFed;
            if (!engine.handleNextRawRecord(r))
                break;
        }
    }
    engine.finalize();
    return out;
}

// A series of values one step apart, starting at a given time.
inline std::vector<DataRecord> evenSeries(long long start, long long stepMs, const std::vector<double>& values)
{
    std::vector<DataRecord> series;
    for (std::size_t i = 0; i < values.size(); ++i)
        series.push_back(DataRecord{start + static_cast<long long>(i) * stepMs, QVariant(values[i])});
    return series;
}

inline std::vector<double> valuesOf(const std::vector<DataRecord>& records)
{
    std::vector<double> v;
    for (const DataRecord& r : records)
        v.push_back(r.value.toDouble());
    return v;
}

inline std::vector<long long> timesOf(const std::vector<DataRecord>& records)
{
    std::vector<long long> t;
    for (const DataRecord& r : records)
        t.push_back(r.timestamp);
    return t;
}

} // namespace Kel::test
