// The aggregation methods: one handler per method, called by the driver with
// every raw record. A handler collects the records of the current interval
// and, when a record at or beyond the interval's end arrives, delivers the
// finished interval through pushIntervalValue and moves on to the next one.
// Intervals without records yield nothing, or with fill a value of their own
// (marked null with fillNull). finalize closes the last interval with a
// record that carries no value.
//
// The interval that ends at B is [B - interval, B): a record exactly at B
// belongs to the next one. The per-record path allocates nothing: MEDIAN and
// MODE reuse their vector from interval to interval. Records inside an
// interval may also arrive as plain runs (PlainRuns.cpp), with the same
// effect as through these handlers.

#include "Interpolate.h"

#include "EngineSupport.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Kel {

namespace {

using DataRecord = Interpolate::DataRecord;

// The distinct values one interval of MODE may hold; reaching it stops the
// read, as the median's cap does (EngineSupport.h).
constexpr std::size_t kMaxModeValuesPerInterval = 1000000;

constexpr double kNoValue = std::numeric_limits<double>::quiet_NaN();

// The intervals that end at or before ts and hold no record.
void closeEmptyIntervalsThrough(Interpolate& e, long long ts)
{
    if (!e.fill) {
        detail::skipIntervalsThrough(e, ts);
        return;
    }
    while (ts >= e.intervalNext) {
        e.pushIntervalValue(e.intervalNext, 0.0, e.fillNull);
        e.incIntervalNextTimestamp();
    }
}

void startEmptyInterval(Interpolate& e)
{
    e.recordCount = 0;
    e.sum = 0.0;
    e.values.clear();
    e.valueCounts.clear();
}

// The frame that COUNT, the means, SUM, MEDIAN and MODE share. add() takes a
// record into the current interval; finish() gives the value of a finished
// interval, or false when the interval counts as empty.
template <typename Add, typename Finish>
inline void collectPerInterval(Interpolate& e, const DataRecord& record, long long ts, Add add, Finish finish)
{
    if (ts < e.intervalNext) {
        add(record);
        return;
    }
    double value = 0.0;
    if (e.recordCount >= 1 && finish(value)) {
        e.pushIntervalValue(e.intervalNext, value, false);
        e.incIntervalNextTimestamp();
    }
    startEmptyInterval(e);
    closeEmptyIntervalsThrough(e, ts);
    add(record);
}

bool replacesKept(const QVariant& kept, double candidate, bool isMin)
{
    if (kept.isNull())
        return true;
    const double keptValue = kept.toDouble();
    return isMin ? keptValue > candidate : candidate > keptValue;
}

void keepIfMoreExtreme(DataRecord& kept, const DataRecord& record, bool isMin)
{
    if (replacesKept(kept.value, record.value.toDouble(), isMin))
        kept = record;
}

// Linear SUM: an amount at one instant. Intervals ending before it had no
// known span and yield nothing; an amount at or before the start of the
// first interval belongs to no result.
void addToSumAt(Interpolate& e, long long t, double amount)
{
    if (t <= e.intervalStart)
        return;
    detail::skipIntervalsThrough(e, t - 1);
    e.sum += amount;
}

// Linear SUM: an amount gathered over (from, ts], shared among the intervals
// in proportion to time. Every interval the span reaches yields its sum.
void spreadOverIntervals(Interpolate& e, long long from, long long ts, double amount)
{
    if (from < e.intervalStart) {
        const long long cut = std::min(ts, e.intervalStart);
        amount -= e.linearInterpolate(from, 0.0, cut, ts, amount);
        from = cut;
    }
    while (ts >= e.intervalNext) {
        const long long end = e.intervalNext;
        if (end >= from) {
            const double share = e.linearInterpolate(from, 0.0, end, ts, amount);
            e.sum += share;
            amount -= share;
            from = end;
            e.pushIntervalValue(end, e.sum, false);
        }
        e.incIntervalNextTimestamp();
        e.sum = 0.0;
    }
    e.sum += amount;
}

// MODE collects an interval's values in `values` and orders them when the
// interval ends: sorting a vector that is reused from interval to interval
// allocates nothing per record, where counting each value in the map as it
// arrives allocates a node for every new one. An interval of many values is
// counted into valueCounts a batch at a time, in arrival order, so that the
// cap on distinct values holds as before.
void countModeValues(Interpolate& e)
{
    for (const double v : e.values) {
        const auto place = e.valueCounts.lower_bound(v);
        if (place != e.valueCounts.end() && place->first == v) {
            ++place->second;
        } else {
            if (e.valueCounts.size() >= kMaxModeValuesPerInterval)
                throw std::out_of_range("Limit reached for mode");
            e.valueCounts.emplace_hint(place, v, 1);
        }
    }
    e.values.clear();
}

// The first of the most frequent values in ascending order: the smallest on
// a tie. 0.0 and -0.0 are one value; it takes the sign of the first that
// arrived, as the map's key would.
double modeOfSorted(std::vector<double>& values)
{
    const auto firstZero = std::find(values.begin(), values.end(), 0.0);
    const double zero = firstZero != values.end() ? *firstZero : 0.0;
    // A process value often only rises or only falls within an interval: its
    // values are then in order already, or in reverse order.
    if (std::is_sorted(values.rbegin(), values.rend()))
        std::reverse(values.begin(), values.end());
    else if (!std::is_sorted(values.begin(), values.end()))
        std::sort(values.begin(), values.end());
    double mode = kNoValue;
    std::size_t best = 0;
    for (std::size_t i = 0, j = 0; i < values.size(); i = j) {
        while (j < values.size() && values[j] == values[i])
            ++j;
        if (j - i > best) {
            best = j - i;
            mode = values[i];
        }
    }
    return mode == 0.0 ? zero : mode;
}

double modeOfInterval(Interpolate& e)
{
    if (e.valueCounts.empty())
        return modeOfSorted(e.values);
    countModeValues(e);
    double mode = kNoValue;
    int best = 0;
    for (const auto& [candidate, count] : e.valueCounts) {
        if (count > best) {
            best = count;
            mode = candidate;
        }
    }
    return mode;
}

} // namespace

void Interpolate::handle_raw(DataRecord record, long long ts)
{
    Q_UNUSED(ts);
    if (record.timestamp < alignedStart || record.timestamp > alignedEnd)
        return;
    if (!filters.empty() && !filterMatch(record))
        return;
    if (countOnly) {
        detail::raiseCountRecord(*outputRecords);
        return;
    }
    if (next)
        next->handleNextRawRecord(std::move(record));
    else
        outputRecords->push_back(std::move(record));
    checkLimit();
}

// The minimum first, stamped at the interval's end, the maximum 1 ms later;
// with average one value, their mean.
void Interpolate::handle_MIN_MAX(DataRecord record, long long ts)
{
    if (ts < intervalNext) {
        keepIfMoreExtreme(keptRecord, record, true);
        keepIfMoreExtreme(keptMaxRecord, record, false);
        ++recordCount;
        return;
    }
    const auto deliver = [this](bool isNull) {
        const double low = keptRecord.value.toDouble();
        const double high = keptMaxRecord.value.toDouble();
        if (average) {
            pushIntervalValue(intervalNext, (low + high) / 2.0, isNull);
        } else {
            pushIntervalValue(intervalNext, low, isNull);
            pushIntervalValue(intervalNext + 1, high, isNull);
        }
    };
    if (recordCount >= 1 && !keptRecord.value.isNull()) {
        deliver(false);
        incIntervalNextTimestamp();
    }
    if (fill && !keptRecord.value.isNull()) {
        while (ts >= intervalNext) {
            deliver(fillNull);
            incIntervalNextTimestamp();
        }
    }
    detail::skipIntervalsThrough(*this, ts);
    keptRecord = record;
    keptMaxRecord = std::move(record);
    recordCount = 1;
}

void Interpolate::handle_MIN(DataRecord record, long long ts)
{
    handle_MINorMAX(std::move(record), ts, true);
}

void Interpolate::handle_MAX(DataRecord record, long long ts)
{
    handle_MINorMAX(std::move(record), ts, false);
}

// The extreme is stamped with its own time, so that a trend shows it where it
// happened; with align, or when results are labelled at the interval's start,
// it is stamped at the interval's end like every other method. Empty
// intervals filled after it carry its value at their own ends.
void Interpolate::handle_MINorMAX(DataRecord record, long long ts, bool isMin)
{
    if (ts < intervalNext) {
        keepIfMoreExtreme(keptRecord, record, isMin);
        ++recordCount;
        return;
    }
    if (recordCount >= 1 && !keptRecord.value.isNull()) {
        const bool atIntervalEnd = align || labelAtIntervalStart;
        pushIntervalValue(atIntervalEnd ? intervalNext : keptRecord.timestamp, keptRecord.value.toDouble(), false);
        incIntervalNextTimestamp();
    }
    if (fill && !keptRecord.value.isNull()) {
        while (ts >= intervalNext) {
            pushIntervalValue(intervalNext, keptRecord.value.toDouble(), fillNull);
            incIntervalNextTimestamp();
        }
    }
    detail::skipIntervalsThrough(*this, ts);
    keptRecord = std::move(record);
    recordCount = 1;
}

// Without linear, the sum of the values in the interval.
//
// With linear, a value is an amount gathered since the record before it and
// is shared among the intervals its span covers in proportion to time, so
// that the differences of a meter counter give each interval's consumption
// and the intervals add up to the counter's whole increase. Here an interval
// ending at B covers (B - interval, B]. A value whose span has no known start
// counts whole at its own time: the first record of a read, and the record
// the driver kept in previousRecord before the first call.
void Interpolate::handle_SUM(DataRecord record, long long ts)
{
    if (!linear) {
        collectPerInterval(
            *this, record, ts,
            [this](const DataRecord& r) {
                ++recordCount;
                sum += r.value.toDouble();
            },
            [this](double& value) {
                value = sum;
                return true;
            });
        previousRecord = std::move(record);
        return;
    }

    if (recordCount == 0 && previousRecord.value.isValid())
        addToSumAt(*this, previousRecord.timestamp, previousRecord.value.toDouble());
    ++recordCount;
    const double value = record.value.toDouble();
    if (previousRecord.value.isValid())
        spreadOverIntervals(*this, previousRecord.timestamp, ts, value);
    else
        addToSumAt(*this, ts, value);
    previousRecord = std::move(record);
}

void Interpolate::handle_MEAN_A(DataRecord record, long long ts)
{
    collectPerInterval(
        *this, record, ts, [this](const DataRecord& r) { detail::addToArithmeticMean(*this, r.value.toDouble()); },
        [this](double& value) {
            value = sum / static_cast<double>(recordCount);
            return true;
        });
}

void Interpolate::handle_MEAN_G(DataRecord record, long long ts)
{
    collectPerInterval(
        *this, record, ts, [this](const DataRecord& r) { detail::addToGeometricMean(*this, r.value.toDouble()); },
        [this](double& value) {
            value = std::exp(sum / static_cast<double>(recordCount));
            return true;
        });
}

// An interval whose sum of reciprocals is exactly 0 counts as empty.
void Interpolate::handle_MEAN_H(DataRecord record, long long ts)
{
    collectPerInterval(
        *this, record, ts, [this](const DataRecord& r) { detail::addToHarmonicMean(*this, r.value.toDouble()); },
        [this](double& value) {
            if (sum == 0.0)
                return false;
            value = static_cast<double>(recordCount) / sum;
            return true;
        });
}

void Interpolate::handle_MEAN_S(DataRecord record, long long ts)
{
    collectPerInterval(
        *this, record, ts, [this](const DataRecord& r) { detail::addToQuadraticMean(*this, r.value.toDouble()); },
        [this](double& value) {
            value = std::sqrt(sum / static_cast<double>(recordCount));
            return true;
        });
}

// The lower of the two middle values for an even count, so the median is
// always a value that was measured. NaN values have no place in an order and
// are left out; an interval of NaN values alone yields NaN.
void Interpolate::handle_MEDIAN(DataRecord record, long long ts)
{
    collectPerInterval(
        *this, record, ts,
        [this](const DataRecord& r) {
            const double v = r.value.toDouble();
            if (!std::isnan(v)) {
                if (values.size() >= detail::kMaxMedianValuesPerInterval)
                    throw std::out_of_range("Limit reached for median");
                values.push_back(v);
            }
            ++recordCount;
        },
        [this](double& value) {
            if (values.empty()) {
                value = kNoValue;
                return true;
            }
            const auto middle = values.begin() + static_cast<std::ptrdiff_t>((values.size() - 1) / 2);
            std::nth_element(values.begin(), middle, values.end());
            value = *middle;
            return true;
        });
}

// The most frequent value; among equally frequent values the smallest. NaN
// values are left out as in MEDIAN.
void Interpolate::handle_MODE(DataRecord record, long long ts)
{
    collectPerInterval(
        *this, record, ts,
        [this](const DataRecord& r) {
            const double v = r.value.toDouble();
            if (!std::isnan(v)) {
                if (values.size() >= detail::kModeValuesBeforeCounting)
                    countModeValues(*this);
                values.push_back(v);
            }
            ++recordCount;
        },
        [this](double& value) {
            value = modeOfInterval(*this);
            return true;
        });
}

void Interpolate::handle_COUNT(DataRecord record, long long ts)
{
    collectPerInterval(
        *this, record, ts, [this](const DataRecord&) { detail::addToCount(*this, 0.0); },
        [this](double& value) {
            value = static_cast<double>(recordCount);
            return true;
        });
}

} // namespace Kel
