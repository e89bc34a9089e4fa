// The engine's driver: building an engine and its chain of normalisation
// engines, handing raw records to the method handler, delivering interval
// values converted to the series' value type, the result limit and the end of
// a read. What each method computes lives in AggregationHandlers.cpp and
// Differences.cpp, the interval arithmetic in Intervals.cpp.

#include "Interpolate.h"

#include "EngineSupport.h"
#include "Logging.h"

#include <cmath>
#include <limits>

namespace Kel {

namespace {

using detail::engineLog;

// Truncation toward zero into the signed 64-bit range; values outside it are
// clamped so that the conversion itself is always defined.
long long truncatedToInt64(double value)
{
    constexpr double twoTo63 = 9223372036854775808.0;
    if (value >= twoTo63)
        return std::numeric_limits<long long>::max();
    if (value < -twoTo63)
        return std::numeric_limits<long long>::min();
    return static_cast<long long>(value);
}

unsigned long long truncatedToUInt64(double value)
{
    constexpr double twoTo63 = 9223372036854775808.0;
    constexpr double twoTo64 = 18446744073709551616.0;
    if (value < twoTo63)
        return static_cast<unsigned long long>(truncatedToInt64(value));
    if (value >= twoTo64)
        return std::numeric_limits<unsigned long long>::max();
    return static_cast<unsigned long long>(value);
}

// The interval value as the series stores it. Small integer types are cut to
// their width from the truncated 64-bit value; they travel as int, like the
// values read back from a storage file.
QVariant convertedTo(QMetaType::Type type, double value, bool& supported)
{
    supported = true;
    const long long whole = truncatedToInt64(value);
    switch (type) {
    case QMetaType::Bool:
        return QVariant(value > 0.5);
    case QMetaType::Int:
        return QVariant(static_cast<int>(whole));
    case QMetaType::UInt:
        return QVariant(static_cast<uint>(whole));
    case QMetaType::LongLong:
        return QVariant(static_cast<qlonglong>(whole));
    case QMetaType::ULongLong:
        return QVariant(static_cast<qulonglong>(truncatedToUInt64(value)));
    case QMetaType::Double:
        return QVariant(value);
    case QMetaType::Short:
        return QVariant(static_cast<int>(static_cast<short>(whole)));
    case QMetaType::Char:
        return QVariant(static_cast<int>(static_cast<signed char>(whole)));
    case QMetaType::UShort:
        return QVariant(static_cast<int>(whole & 0xFFFF));
    case QMetaType::UChar:
        return QVariant(static_cast<int>(whole & 0xFF));
    case QMetaType::Float:
        return QVariant(static_cast<float>(value));
    default:
        supported = false;
        return QVariant();
    }
}

QVariant storedValue(QMetaType::Type type, long long timestamp, double value)
{
    if (std::isnan(value)) {
        engineLog(detail::LOG_WARNING, QStringLiteral("Interval double value is NaN (TS:%1"), __LINE__)
            .arg(QVariant(static_cast<qlonglong>(timestamp)))
            .endl();
        value = 0.0;
    } else if (std::isinf(value)) {
        engineLog(detail::LOG_WARNING, QStringLiteral("Interval double value is Inf (TS:%1"), __LINE__)
            .arg(QVariant(static_cast<qlonglong>(timestamp)))
            .endl();
        value = 0.0;
    }
    bool supported = true;
    QVariant stored = convertedTo(type, value, supported);
    if (!supported)
        engineLog(detail::LOG_FAILURE, QStringLiteral("pushIntervalValue: Invalid target value type %1"),
                  __LINE__)
            .arg(QString::fromLatin1(QMetaType(type).name()))
            .endl();
    return stored;
}

} // namespace

Interpolate::Interpolate(InterpolateParam param, std::vector<InterpolateParam> furtherParams,
                         long long rangeStart, long long rangeEnd, long long firstRecordTime,
                         long long lastRecordTime, std::vector<DataRecord>* outputRecords,
                         QMetaType::Type targetType, bool labelAtIntervalStart, int& resultCount,
                         bool countOnly)
    : outputRecords(outputRecords),
      targetType(targetType),
      labelAtIntervalStart(labelAtIntervalStart),
      resultCount(&resultCount),
      limit(resultCount),
      countOnly(countOnly),
      rangeStart(rangeStart),
      rangeEnd(rangeEnd),
      alignedStart(rangeStart),
      alignedEnd(rangeEnd),
      firstRecordTime(firstRecordTime),
      lastRecordTime(lastRecordTime),
      counterWrapValues{1000000.0,     10000000.0,    100000000.0,          1000000000.0,
                        2147483647.0,  4294967295.0,  9223372036854775808.0, 18446744073709551616.0}
{
    resultCount = 0;

    // The further parameters run first, in their order, and param last, on the
    // values the others produce. The chain is built after resultCount was
    // cleared, so only this first engine, which never stores, holds the
    // caller's limit: a chained read is not cut short by it.
    if (!furtherParams.empty()) {
        furtherParams.push_back(std::move(param));
        param = std::move(furtherParams.front());
        furtherParams.erase(furtherParams.begin());
        Interpolate** link = &next;
        for (std::size_t i = 0; i < furtherParams.size(); ++i) {
            const bool isLast = i + 1 == furtherParams.size();
            *link = new Interpolate(std::move(furtherParams[i]), {}, rangeStart, rangeEnd,
                                    firstRecordTime, lastRecordTime, outputRecords, targetType,
                                    isLast && labelAtIntervalStart, resultCount, countOnly);
            link = &(*link)->next;
        }
        this->labelAtIntervalStart = false;
    }

    intervalMs = param.interval > 0 ? param.interval * 1000 : param.interval;
    filters = std::move(param.filterParams);
    alignStartEndTimestamp = param.alignStartEndTimestamp;
    offsetMinFromUTC = param.offsetMinFromUTC;
    interpolateParamsFromArgs(param.method, intervalMs);
    initHandlers();
    // In UTC: the local time would have the C library look up the zone (a
    // stat of /etc/localtime) on every read, and nothing reads it as local.
    now = QDateTime::currentDateTimeUtc();
}

Interpolate::~Interpolate()
{
    delete next;
}

void Interpolate::initHandlers()
{
    static const Handler handlers[] = {
        &Interpolate::handle_raw,    &Interpolate::handle_PREV_NEXT, &Interpolate::handle_PREV,
        &Interpolate::handle_NEXT,   &Interpolate::handle_MIN_MAX,   &Interpolate::handle_MIN,
        &Interpolate::handle_MAX,    &Interpolate::handle_SUM,       &Interpolate::handle_MEAN_A,
        &Interpolate::handle_MEAN_G, &Interpolate::handle_MEAN_H,    &Interpolate::handle_MEAN_S,
        &Interpolate::handle_MEDIAN, &Interpolate::handle_MODE,      &Interpolate::handle_COUNT,
    };

    if (method >= PREV_NEXT && method <= COUNT) {
        handler = handlers[method];
        // Extremes, means, median, mode and count take no interpolation; the
        // last seven always stamp their value at the interval's end.
        if (method >= MIN_MAX && method != SUM)
            linear = false;
        if (method >= MEAN_A)
            align = true;
        if (fillNull)
            fill = true;
    } else {
        handler = &Interpolate::handle_raw;
        linear = align = fill = fillNull = false;
    }

    if (countOnly)
        outputRecords->push_back(DataRecord{-1, QVariant()});
}

bool Interpolate::handleNextRawRecord(DataRecord record)
{
    if (!acceptsRecords)
        return false;
    try {
        const long long ts = record.timestamp;
        if (diffHandler) {
            (this->*diffHandler)(record, ts);
            if (record.value.isNull())
                return true;
        }
        // The last engine of a linear read starts from the latest record before
        // the range: records are only kept until one at or after readStart is.
        if (linear && method != RAW && !next && previousRecord.timestamp < readStart) {
            previousRecord = std::move(record);
            return true;
        }
        (this->*handler)(std::move(record), ts);
        return true;
    } catch (const std::exception& e) {
        if (detail::isEndReached(e))
            return true;
        acceptsRecords = false;
        if (!detail::isLimitReached(e))
            engineLog(detail::LOG_WARNING, QStringLiteral("Interpolate exception '%1'"), __LINE__)
                .arg(QString::fromLocal8Bit(e.what()))
                .endl();
        return false;
    }
}

void Interpolate::pushIntervalValue(long long timestamp, double value, bool isNull)
{
    if (!filters.empty() && !filterMatch(DataRecord{timestamp, QVariant(value)}))
        return;
    if (diffHandler == &Interpolate::handle_DIFF_CTRUPCLEANED && value < 0)
        value = 0.0;
    if (next) {
        if (!isNull)
            next->handleNextRawRecord(DataRecord{timestamp, QVariant(value)});
        return;
    }
    if (countOnly) {
        detail::raiseCountRecord(*outputRecords);
        return;
    }
    if (outputEnd < timestamp)
        throw std::out_of_range(detail::kEndReached);
    if (labelAtIntervalStart)
        decTimestampByInterval(timestamp);
    outputRecords->push_back(
        DataRecord{timestamp, isNull ? QVariant() : storedValue(targetType, timestamp, value)});
    checkLimit();
}

void Interpolate::checkLimit()
{
    if (limit >= 1 && outputRecords->size() >= static_cast<std::size_t>(limit)) {
        *resultCount = static_cast<int>(outputRecords->size());
        throw std::out_of_range(detail::kLimitReached);
    }
}

void Interpolate::finalize()
{
    try {
        // A record without value at the aligned end closes the last interval,
        // also after the limit stopped the read: the interval that reached
        // the limit is then given once more, and counted.
        const bool limitReached = limit >= 1 && outputRecords && int(outputRecords->size()) >= limit;
        if ((acceptsRecords || limitReached) && method != RAW && !linear)
            (this->*handler)(DataRecord{alignedEnd, QVariant()}, alignedEnd);
        if (next)
            next->finalize();
    } catch (const std::exception& e) {
        if (!detail::isEndReached(e) && !detail::isLimitReached(e))
            engineLog(detail::LOG_WARNING, QStringLiteral("Interpolate finalize exception '%1'"), __LINE__)
                .arg(QString::fromLocal8Bit(e.what()))
                .endl();
    }
    acceptsRecords = false;
}

bool Interpolate::needsPreviousDataRecords()
{
    if (noPreviousRecords)
        return false;
    if (next && next->needsPreviousDataRecords())
        return true;
    return diffHandler || method == PREV_NEXT || method == PREV
           || ((method == NEXT || method == SUM) && linear);
}

bool Interpolate::needsDataRecordAfterRangeEnd()
{
    if (noRecordAfterEnd)
        return false;
    if (next && next->needsDataRecordAfterRangeEnd())
        return true;
    if (method == RAW)
        return false;
    if (method == PREV_NEXT || method == NEXT)
        return true;
    return linear;
}

bool Interpolate::passesRawRecordsThrough() const
{
    return method == RAW && !diffHandler && filters.empty() && !next && !countOnly && limit <= 0;
}

} // namespace Kel
