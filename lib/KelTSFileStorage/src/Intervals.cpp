// Interval stepping and calendar alignment: what an interval is, how a
// timestamp is aligned to an interval boundary, how the engine steps from one
// interval to the next and back, which range a read must cover, how many
// results a range yields when that is known without reading, and the linear
// interpolation between two records.
//
// Calendar units are counted on UTC dates; the local shift of a boundary
// comes only from offsetMinFromUTC.

#include "Interpolate.h"

#include "Calendar.h"

namespace Kel {

namespace {

enum CalendarUnit : long long { DAY = -1, WEEK = -2, MONTH = -3, QUARTER = -4, HALF_YEAR = -5, YEAR = -6 };

constexpr long long kDayMs = 86400000LL;

QDateTime utcOf(long long ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}

// One calendar unit forward (direction 1) or back (-1); invalid for units
// that are not calendar units.
QDateTime steppedByUnit(const QDateTime& t, long long unit, int direction)
{
    switch (unit) {
    case YEAR:
        return t.addYears(direction);
    case HALF_YEAR:
        return t.addMonths(6 * direction);
    case QUARTER:
        return t.addMonths(3 * direction);
    case MONTH:
        return t.addMonths(direction);
    case WEEK:
        return t.addDays(7 * direction);
    case DAY:
        return t.addDays(direction);
    default:
        return QDateTime();
    }
}

} // namespace

long long Interpolate::alignSpecialStartTimestamp(long long timestamp)
{
    if (method == RAW)
        return timestamp;
    // Integer division truncates toward zero, so a negative timestamp moves
    // up to its boundary rather than down; kept so.
    if (intervalMs > 0)
        return timestamp / intervalMs * intervalMs;

    const QDate date = utcOf(timestamp).date();
    if (!date.isValid())
        return timestamp;
    QDate start;
    switch (intervalMs) {
    case DAY:
        start = date;
        break;
    case WEEK:
        start = date.addDays(1 - date.dayOfWeek());
        break;
    case YEAR:
        start = QDate(date.year(), 1, 1);
        break;
    case MONTH:
    case QUARTER:
    case HALF_YEAR:
        // Quarters and half years start on the 1st of whatever month the
        // timestamp lies in, not on a quarter or half-year boundary.
        start = QDate(date.year(), date.month(), 1);
        break;
    default:
        return timestamp;
    }
    return start.startOfDay(Qt::UTC).toMSecsSinceEpoch() - offsetMinFromUTC * 60000LL;
}

// Unknown negative units step forward by a day but not back: the asymmetry is
// deliberate and both directions keep it.
void Interpolate::incTimestampByInterval(long long& timestamp)
{
    if (method == RAW)
        return;
    if (intervalMs > 0) {
        timestamp += intervalMs;
        return;
    }
    const QDateTime from = utcOf(timestamp);
    const QDateTime to = from.isValid() ? steppedByUnit(from, intervalMs, 1) : QDateTime();
    timestamp = to.isValid() ? to.toMSecsSinceEpoch() : timestamp + kDayMs;
}

void Interpolate::decTimestampByInterval(long long& timestamp)
{
    if (method == RAW)
        return;
    if (intervalMs > 0) {
        timestamp -= intervalMs;
        return;
    }
    const QDateTime from = utcOf(timestamp);
    const QDateTime to = from.isValid() ? steppedByUnit(from, intervalMs, -1) : QDateTime();
    if (to.isValid())
        timestamp = to.toMSecsSinceEpoch();
}

void Interpolate::incIntervalNextTimestamp()
{
    intervalStart = intervalNext;
    incTimestampByInterval(intervalNext);
}

bool Interpolate::getRange(long long& readStart, long long& readEnd)
{
    const bool chainHasRange = !next || next->getRange(readStart, readEnd);
    acceptsRecords = false;

    values.clear();
    valueCounts.clear();

    const auto specialBound = [this](long long bound, long long& aligned, bool alignIt) {
        long long moment;
        if (bound == -1)
            moment = detail::nowMs();
        else if (bound == -2)
            moment = firstRecordTime;
        else if (bound == -3)
            moment = lastRecordTime;
        else
            return;
        aligned = alignIt ? alignSpecialStartTimestamp(moment) : moment;
    };
    specialBound(rangeStart, alignedStart, true);
    specialBound(rangeEnd, alignedEnd, false);

    if (alignStartEndTimestamp && method != RAW) {
        alignedStart = alignSpecialStartTimestamp(alignedStart);
        alignedEnd = alignSpecialStartTimestamp(alignedEnd);
        incTimestampByInterval(alignedEnd);
    }

    if (alignedStart < firstRecordTime) {
        if (method == RAW) {
            alignedStart = firstRecordTime;
        } else if (intervalMs > 0) {
            // The same boundary as stepping interval by interval, without the loop.
            const long long steps = (firstRecordTime - alignedStart + intervalMs - 1) / intervalMs;
            alignedStart += steps * intervalMs;
        } else {
            while (alignedStart < firstRecordTime)
                incTimestampByInterval(alignedStart);
        }
    }

    readStart = alignedStart;
    readEnd = alignedEnd;
    outputEnd = alignedEnd;

    if (method != RAW) {
        if (labelAtIntervalStart) {
            incTimestampByInterval(readEnd);
            incTimestampByInterval(alignedStart);
            incTimestampByInterval(alignedEnd);
        } else {
            decTimestampByInterval(readStart);
        }
        // Two results per interval: the second is stamped 1 ms after the end.
        const bool twoPerInterval = (method == PREV_NEXT && !linear) || (method == MIN_MAX && !average);
        outputEnd = alignedEnd + (twoPerInterval ? 1 : 0);
    }

    if (readStart < firstRecordTime) {
        readStart = firstRecordTime;
        noPreviousRecords = true;
    }
    if (lastRecordTime < readEnd) {
        readEnd = lastRecordTime;
        noRecordAfterEnd = true;
    }

    // An engine further down the chain without a range yields nothing, so
    // neither does the chain.
    if (alignedEnd < alignedStart || !chainHasRange)
        return false;

    intervalNext = alignedStart;
    intervalStart = alignedStart;
    decTimestampByInterval(intervalStart);
    this->readStart = readStart;
    this->readEnd = readEnd;
    // When the last engine already knows its count, the chain takes no records.
    acceptsRecords = !next || next->acceptsRecords;

    // Only the last engine stores results, so only its count is the read's.
    if (!countOnly || next)
        return true;
    const long long count = getFastCount();
    if (count == -1)
        return true;
    outputRecords->at(0) = DataRecord{0, QVariant(static_cast<qlonglong>(count))};
    acceptsRecords = false;
    return true;
}

long long Interpolate::getFastCount()
{
    if (!filters.empty() || !fill || method < PREV_NEXT || method > COUNT)
        return -1;
    const long long perInterval = ((method == MIN_MAX && !average) || (method == PREV_NEXT && !linear)) ? 2 : 1;
    if (intervalMs > 0)
        return ((alignedEnd - alignedStart) / intervalMs + 1) * perInterval;

    const QDate s = utcOf(alignedStart).date();
    const QDate e = utcOf(alignedEnd).date();
    const long long months = (e.year() * 12LL + e.month()) - (s.year() * 12LL + s.month());
    switch (intervalMs) {
    case YEAR:
        return (e.year() - s.year() + 1LL) * perInterval;
    case HALF_YEAR:
        return (months / 6 + 1) * perInterval;
    case QUARTER:
        return (months / 3 + 1) * perInterval;
    case MONTH:
        return (months + 1) * perInterval;
    case WEEK:
        return (s.daysTo(e) / 7 + 1) * perInterval;
    case DAY:
        return (s.daysTo(e) + 1) * perInterval;
    default:
        return 0;
    }
}

// A first point at timestamp 0 counts as no point at all: the result is then
// the second value.
double Interpolate::linearInterpolate(long long time1, double value1, long long time, long long time2,
                                      double value2)
{
    if (time1 != 0 && time2 - time1 > 0)
        return (value2 - value1) * static_cast<double>(time - time1) / static_cast<double>(time2 - time1)
               + value1;
    return value2;
}

} // namespace Kel
