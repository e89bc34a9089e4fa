// Drives an interpolation engine over an in-memory series the way the
// storage's reader does (getRange, the record before the range when asked,
// the records of the range, the record after it when asked, finalize), and
// shows results compactly as "11:00=7 11:00:00.001=9 12:00=null".
#pragma once

#include "Interpolate.h"
#include "TestSupport.h"

#include <QDateTime>
#include <QStringList>

#include <optional>

#include <string>
#include <vector>

namespace Kel::test {

using DataRecord = Interpolate::DataRecord;
using InterpolateParam = Interpolate::InterpolateParam;

inline InterpolateParam request(const char* method, long long intervalSeconds, bool alignRange = false)
{
    InterpolateParam p;
    p.method = QString::fromLatin1(method);
    p.interval = intervalSeconds;
    p.alignStartEndTimestamp = alignRange;
    return p;
}

// A record on 7 May 2024, "hh:mm" or "hh:mm:ss.zzz" UTC.
inline DataRecord at(const char* time, double value)
{
    return DataRecord{ms((std::string("2024-05-07T") + time + "Z").c_str()), QVariant(value)};
}

// A read: {request, chain, start, end, label at start, count only, limit}.
struct Read {
    InterpolateParam param;
    std::vector<InterpolateParam> chain;
    long long start = 0;
    long long end = 0;
    bool labelAtIntervalStart = false;
    bool countOnly = false;
    int resultCount = 0;  // the limit on entry, as the caller passes it
    int recordsFed = 0;
    // The record fed before the range when the engine asks for one, in place
    // of the last record before it.
    std::optional<DataRecord> previous = std::nullopt;
    QMetaType::Type targetType = QMetaType::Double;  // the series' value type
};

// Sets the engine's range up as a reader does, wherever that says to read.
inline bool setUpRange(Interpolate& engine)
{
    long long readStart = 0;
    long long readEnd = 0;
    return engine.getRange(readStart, readEnd);
}

inline void feed(Interpolate& engine, Read& read, const std::vector<DataRecord>& series, long long readStart,
                 long long readEnd)
{
    const DataRecord* before = nullptr;
    for (const DataRecord& r : series)
        if (r.timestamp < readStart)
            before = &r;
    if (read.previous)
        before = &*read.previous;
    if (before && engine.needsPreviousDataRecords()) {
        ++read.recordsFed;
        engine.handleNextRawRecord(*before);
    }
    for (const DataRecord& r : series) {
        if (r.timestamp < readStart)
            continue;
        const bool afterEnd = r.timestamp > readEnd;
        if (afterEnd && !engine.needsDataRecordAfterRangeEnd())
            break;
        ++read.recordsFed;
        if (!engine.handleNextRawRecord(r) || afterEnd)
            break;
    }
}

inline std::vector<DataRecord> runRead(Read& read, const std::vector<DataRecord>& series)
{
    std::vector<DataRecord> out;
    Interpolate engine(read.param, read.chain, read.start, read.end, series.front().timestamp,
                       series.back().timestamp, &out, read.targetType, read.labelAtIntervalStart,
                       read.resultCount, read.countOnly);
    long long readStart = 0;
    long long readEnd = 0;
    const bool hasRange = engine.getRange(readStart, readEnd);
    const bool countKnown = read.countOnly && !out.empty() && out[0].timestamp == 0;
    if (hasRange && !countKnown)
        feed(engine, read, series, readStart, readEnd);
    engine.finalize();
    return out;
}

inline std::string show(const std::vector<DataRecord>& records)
{
    QStringList parts;
    for (const DataRecord& r : records) {
        const QDateTime t = QDateTime::fromMSecsSinceEpoch(r.timestamp, Qt::UTC);
        const QString time = t.toString(t.time().msec() || t.time().second() ? "hh:mm:ss.zzz" : "hh:mm");
        parts << time + '=' + (r.value.isValid() ? QString::number(r.value.toDouble(), 'g', 6) : "null");
    }
    return parts.join(' ').toStdString();
}

} // namespace Kel::test
