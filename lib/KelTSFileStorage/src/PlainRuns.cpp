// Runs of plain records: the records inside the engine's current interval,
// taken straight from a block of a file as timestamps and doubles. Each
// method's step does to its running state what its handler does to a record
// inside the interval (AggregationHandlers.cpp, SamplingHandlers.cpp,
// Differences.cpp); the records a handler keeps whole (the last one, the
// extremes) are decoded once, when the run ends. A run never throws: where a
// handler would (a median at its cap), the step declines the record and the
// handler takes it.

#include "EngineSupport.h"

#include <algorithm>

namespace Kel::detail {

namespace {

using DataRecord = Interpolate::DataRecord;

struct Run {
    const uchar* p;
    qint64 n;
    const RecordLayout& l;
    long long base;
    long long lo;
    long long hi;
};

// A record a step keeps: where it lies in the block, or, after a difference
// method changed it, its new value.
struct Kept {
    long long ts = 0;
    const uchar* at = nullptr;
    double value = 0.0;

    DataRecord record(QMetaType::Type type) const
    {
        return DataRecord{ts, at ? decodeValue(at, type) : QVariant(value)};
    }
};

// PREV, NEXT, PREV_NEXT, linear or not: inside the interval a record only
// becomes previousRecord.
struct LastRecord {
    Kept last;
    bool any = false;

    bool accepts() const { return true; }
    void take(long long ts, double v, const uchar* at)
    {
        last = {ts, at, v};
        any = true;
    }
    void settle(Interpolate& e, QMetaType::Type type) const
    {
        if (any)
            e.previousRecord = last.record(type);
    }
};

// SUM: the values add up in arrival order, and the last record becomes
// previousRecord. Linear, a record whose span begins inside the interval
// adds its whole value; the first of an interval is shared out by the
// handler (see linearSumReady).
struct Sum {
    double sum;
    long long count = 0;
    LastRecord last;

    explicit Sum(const Interpolate& e) : sum(e.sum) {}
    bool accepts() const { return true; }
    void take(long long ts, double v, const uchar* at)
    {
        sum += v;
        ++count;
        last.take(ts, v, at);
    }
    void settle(Interpolate& e, QMetaType::Type type) const
    {
        e.sum = sum;
        e.recordCount += count;
        last.settle(e, type);
    }
};

// One extreme of MIN, MAX or MIN_MAX: a record replaces the kept one when
// none is kept or when it is strictly more extreme, so a NaN kept first
// stays.
struct Extreme {
    DataRecord& keptRecord;
    const bool isMin;
    bool has;
    double kept;
    Kept replacement;
    bool replaced = false;

    Extreme(DataRecord& keptRecord, bool isMin)
        : keptRecord(keptRecord), isMin(isMin), has(!keptRecord.value.isNull()),
          kept(has ? keptRecord.value.toDouble() : 0.0)
    {
    }
    void take(long long ts, double v, const uchar* at)
    {
        if (has && !(isMin ? kept > v : v > kept))
            return;
        has = true;
        kept = v;
        replacement = {ts, at, v};
        replaced = true;
    }
    void settle(QMetaType::Type type) const
    {
        if (replaced)
            keptRecord = replacement.record(type);
    }
};

struct Extremes {
    Extreme low;
    Extreme high;
    const bool both;
    long long count = 0;

    Extremes(Interpolate& e, bool isMin, bool both)
        : low(e.keptRecord, isMin), high(e.keptMaxRecord, false), both(both)
    {
    }
    bool accepts() const { return true; }
    void take(long long ts, double v, const uchar* at)
    {
        low.take(ts, v, at);
        if (both)
            high.take(ts, v, at);
        ++count;
    }
    void settle(Interpolate& e, QMetaType::Type type) const
    {
        low.settle(type);
        if (both)
            high.settle(type);
        e.recordCount += count;
    }
};

// MEDIAN and MODE keep the values that are not NaN, up to the point where
// their handler would stop or count them.
struct Values {
    std::vector<double>& values;
    const std::size_t cap;
    long long count = 0;

    bool accepts() const { return values.size() < cap; }
    void take(long long, double v, const uchar*)
    {
        if (!std::isnan(v))
            values.push_back(v);
        ++count;
    }
    void settle(Interpolate& e, QMetaType::Type) const { e.recordCount += count; }
};

// The means and COUNT: a record adds to sum and recordCount only.
template <void (*Add)(Interpolate&, double)>
struct Adds {
    Interpolate& e;

    bool accepts() const { return true; }
    void take(long long, double v, const uchar*) { Add(e, v); }
    void settle(Interpolate&, QMetaType::Type) const {}
};

// A difference method in front of a step: the change since the value
// remembered last goes on, or nothing (the record is dropped, as the driver
// drops a record whose value the difference method made invalid). The last
// values are kept in a ring here and written back to diffHistory, as
// doubles, when the run ends.
template <typename Step>
struct Differences {
    Step step;
    Interpolate& e;
    const bool cleaned;
    double ring[16];
    unsigned head = 0;
    unsigned size = 0;

    Differences(Step step, Interpolate& e)
        : step(std::move(step)), e(e), cleaned(e.diffHandler == &Interpolate::handle_DIFF_CTRUPCLEANED)
    {
        for (const QVariant& v : e.diffHistory)
            push(v.toDouble());
    }

    // A value that is no value (it ends the history's run of differences)
    // is left to the handler; so is a history longer than a record leaves.
    static bool ready(const Interpolate& e)
    {
        return e.diffHistory.size() <= 10 &&
               std::none_of(e.diffHistory.begin(), e.diffHistory.end(), [](const QVariant& v) { return v.isNull(); });
    }

    double at(unsigned i) const { return ring[(head + i) & 15]; }
    double back() const { return at(size - 1); }
    void push(double v)
    {
        ring[(head + size) & 15] = v;
        ++size;
    }
    void trim()
    {
        if (size > 9) {
            head += size - 9;
            size = 9;
        }
    }

    bool accepts() const { return step.accepts(); }

    void take(long long ts, double v, const uchar*)
    {
        trim();
        double delta = 0.0;
        if (cleaned ? cleanedDifference(v, delta) : difference(v, delta))
            step.take(ts, delta, nullptr);
    }

    bool difference(double current, double& delta)
    {
        const bool hasBase = size > 0;
        if (hasBase)
            delta = current - back();
        push(current);
        return hasBase;
    }

    bool cleanedDifference(double current, double& delta)
    {
        if (e.counterZeroSeen) {
            if (current != 0.0)
                e.counterZeroSeen = false;
            push(current);
            return false;
        }
        if (size == 0) {
            push(current);
            return false;
        }
        const double last = back();
        delta = current - last;
        if (delta >= 0.0) {
            push(current);
            return true;
        }
        if (size > 4 && jitterThreshold() > std::fabs(delta))
            return false;
        for (const double wrapValue : e.counterWrapValues) {
            if (wrapValue <= last)
                continue;
            const double gap = wrapValue - last;
            const double nearWrap = wrapValue * 0.002;
            if (gap < nearWrap && current < nearWrap) {
                push(gap);
                return false;
            }
            break;
        }
        if (current == 0.0) {
            e.counterZeroSeen = true;
            push(current);
        }
        return false;
    }

    double jitterThreshold() const
    {
        double rise = 0.0;
        for (unsigned i = size - 4; i < size; ++i)
            rise += at(i) - at(i - 1);
        return rise / 5.0 * 0.001;
    }

    void settle(Interpolate&, QMetaType::Type type) const
    {
        step.settle(e, type);
        e.diffHistory.clear();
        for (unsigned i = 0; i < size; ++i)
            e.diffHistory.push_back(QVariant(at(i)));
    }
};

template <typename Step>
qint64 walk(Interpolate& e, const Run& r, Step& step)
{
    const long long next = e.intervalNext;
    const uchar* p = r.p;
    qint64 i = 0;
    for (; i < r.n && step.accepts(); ++i, p += r.l.stride) {
        const long long ts = decodeTimestamp(p, r.l.offsetWidth, r.base);
        if (ts < r.lo || ts > r.hi || ts >= next)
            break;
        const uchar* value = p + r.l.offsetWidth;
        step.take(ts, decodeAsDouble(value, r.l.type), value);
    }
    return i;
}

// Walks the run with the step and settles what it took.
template <typename Step>
qint64 takeWith(Interpolate& e, const Run& r, Step step)
{
    const qint64 taken = walk(e, r, step);
    if (taken > 0)
        step.settle(e, r.l.type);
    return taken;
}

// The step, behind the engine's difference method when it has one.
template <typename Step>
qint64 runOf(Interpolate& e, const Run& r, Step step)
{
    if (!e.diffHandler)
        return takeWith(e, r, std::move(step));
    if (!Differences<Step>::ready(e))
        return 0;
    return takeWith(e, r, Differences<Step>(std::move(step), e));
}

// A linear sum shares out the first record of an interval, and the first
// record at or after the read's start, in the handler; after that each
// record's span begins inside the interval.
bool linearSumReady(const Interpolate& e)
{
    return e.recordCount > 0 && e.previousRecord.value.isValid() &&
           e.previousRecord.timestamp >= e.intervalStart && (e.next || e.previousRecord.timestamp >= e.readStart);
}

} // namespace

bool takesPlainRuns(const Interpolate& e)
{
    return e.method >= Interpolate::PREV_NEXT && e.method <= Interpolate::COUNT;
}

qint64 takePlainRun(Interpolate& e, const uchar* p, qint64 n, const RecordLayout& l, long long base, long long lo,
                    long long hi)
{
    const Run r{p, n, l, base, lo, hi};
    switch (e.method) {
    case Interpolate::PREV_NEXT:
    case Interpolate::PREV:
    case Interpolate::NEXT: return runOf(e, r, LastRecord{});
    case Interpolate::MIN_MAX: return runOf(e, r, Extremes(e, true, true));
    case Interpolate::MIN: return runOf(e, r, Extremes(e, true, false));
    case Interpolate::MAX: return runOf(e, r, Extremes(e, false, false));
    case Interpolate::SUM: return e.linear && !linearSumReady(e) ? 0 : runOf(e, r, Sum(e));
    case Interpolate::MEAN_A: return runOf(e, r, Adds<addToArithmeticMean>{e});
    case Interpolate::MEAN_G: return runOf(e, r, Adds<addToGeometricMean>{e});
    case Interpolate::MEAN_H: return runOf(e, r, Adds<addToHarmonicMean>{e});
    case Interpolate::MEAN_S: return runOf(e, r, Adds<addToQuadraticMean>{e});
    case Interpolate::MEDIAN: return runOf(e, r, Values{e.values, kMaxMedianValuesPerInterval});
    case Interpolate::MODE: return runOf(e, r, Values{e.values, kModeValuesBeforeCounting});
    case Interpolate::COUNT: return runOf(e, r, Adds<addToCount>{e});
    default: return 0;
    }
}

} // namespace Kel::detail
