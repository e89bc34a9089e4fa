// The sampling methods PREV, NEXT and PREV_NEXT, and linear filling: each
// interval end takes the value the series holds there, the value that
// follows it, or the value interpolated between the two records around it.
// They see every record, also those of intervals that yield nothing.

#include "Interpolate.h"

#include "EngineSupport.h"

#include <cmath>

namespace Kel {

namespace {

using DataRecord = Interpolate::DataRecord;

// PREV, NEXT and PREV_NEXT sample the series at each interval end B: the
// value held at B is the last record at or before it, the next value the
// first record at or after it. previousRecord is the last record seen, so the
// interval ending at B held a record exactly when previousRecord lies in it.
enum class Sample { Held, Following, Both };

bool previousRecordInCurrentInterval(const Interpolate& e)
{
    return e.previousRecord.value.isValid() && e.previousRecord.timestamp >= e.intervalStart
           && e.previousRecord.timestamp < e.intervalNext;
}

// Without fill, intervals without records yield nothing: move on to the next
// one that can yield, the one that holds previousRecord when that is not
// behind (a linear read starts from a record it kept), else the one ts falls in.
void skipToIntervalWithData(Interpolate& e, long long ts)
{
    const DataRecord& previous = e.previousRecord;
    const bool previousNotBehind = previous.value.isValid() && previous.timestamp >= e.intervalStart;
    detail::skipIntervalsThrough(e, previousNotBehind ? std::min(previous.timestamp, ts) : ts);
}

// The value held at the interval end: the record at the end itself, else the
// last one before it (null when the engine has seen none).
const DataRecord* heldAt(const Interpolate& e, const DataRecord& record, bool hasValue, long long end)
{
    if (hasValue && record.timestamp == end)
        return &record;
    return e.previousRecord.value.isValid() ? &e.previousRecord : nullptr;
}

void closeSampledIntervals(Interpolate& e, DataRecord&& record, long long ts, Sample sample)
{
    const bool hasValue = record.value.isValid();  // false for finalize's closing record
    // With no record held yet and none following, the intervals that end
    // before ts yield nothing, filled or not: they are passed over at once
    // rather than one by one, which over a long range never ends.
    const bool yields = (sample != Sample::Following && e.previousRecord.value.isValid()) ||
                        (sample != Sample::Held && hasValue);
    if (!yields)
        detail::skipIntervalsThrough(e, ts - 1);
    while (ts >= e.intervalNext) {
        const long long end = e.intervalNext;
        const bool hasData = previousRecordInCurrentInterval(e);
        if (hasData || e.fill) {
            const bool isNull = !hasData && e.fillNull;
            const DataRecord* held = heldAt(e, record, hasValue, end);
            if (sample != Sample::Following && held)
                e.pushIntervalValue(end, held->value.toDouble(), isNull);
            // The record that closes the interval is the first one at or after its end.
            if (sample != Sample::Held && hasValue)
                e.pushIntervalValue(sample == Sample::Both ? end + 1 : end, record.value.toDouble(), isNull);
        }
        e.incIntervalNextTimestamp();
        if (!e.fill)
            skipToIntervalWithData(e, ts);
    }
    if (hasValue)
        e.previousRecord = std::move(record);
}

// With linear, each interval end B gets the value interpolated between the
// last record before B and the first at or after it. An end before the first
// record the engine knows takes that record's value.
void closeInterpolatedIntervals(Interpolate& e, DataRecord&& record, long long ts)
{
    const DataRecord& previous = e.previousRecord;
    while (ts >= e.intervalNext) {
        const long long end = e.intervalNext;
        const bool hasData = previousRecordInCurrentInterval(e);
        if (hasData || e.fill) {
            const double value = previous.timestamp <= end
                                     ? e.linearInterpolate(previous.timestamp, previous.value.toDouble(), end,
                                                           ts, record.value.toDouble())
                                     : previous.value.toDouble();
            e.pushIntervalValue(end, value, !hasData && e.fillNull);
        }
        e.incIntervalNextTimestamp();
        if (!e.fill)
            skipToIntervalWithData(e, ts);
    }
    e.previousRecord = std::move(record);
}

void samplingHandler(Interpolate& e, DataRecord&& record, long long ts, Sample sample)
{
    if (e.linear)
        closeInterpolatedIntervals(e, std::move(record), ts);
    else
        closeSampledIntervals(e, std::move(record), ts, sample);
}

} // namespace

void Interpolate::handle_PREV_NEXT(DataRecord record, long long ts)
{
    samplingHandler(*this, std::move(record), ts, Sample::Both);
}

void Interpolate::handle_PREV(DataRecord record, long long ts)
{
    samplingHandler(*this, std::move(record), ts, Sample::Held);
}

void Interpolate::handle_NEXT(DataRecord record, long long ts)
{
    samplingHandler(*this, std::move(record), ts, Sample::Following);
}

} // namespace Kel
