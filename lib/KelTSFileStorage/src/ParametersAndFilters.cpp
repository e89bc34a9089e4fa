// What a read asks for: the method string parsed into the engine's method,
// modifiers and difference pre-stage, filters parsed from JSON, and the
// filter test of a record.
//
// Filters work in the machine's local time; offsetMinFromUTC plays no part
// in them. The filters of a list are alternatives, the tests of one filter
// are all required.

#include "Interpolate.h"

#include "MethodKeywords.h"

#include <QJsonObject>
#include <QJsonValue>

#include <algorithm>
#include <cmath>

namespace Kel {

namespace {

std::vector<int> intsOf(const QJsonArray& array)
{
    std::vector<int> ints;
    ints.reserve(static_cast<std::size_t>(array.size()));
    for (const QJsonValue& v : array)
        ints.push_back(v.toInt());
    return ints;
}

bool contains(const std::vector<int>& list, int value)
{
    return std::find(list.begin(), list.end(), value) != list.end();
}

bool isOperator(const QString& text, const char* op)
{
    return text.compare(QLatin1String(op), Qt::CaseInsensitive) == 0;
}

bool valuePasses(const QString& compare, double x, double k)
{
    constexpr double kEqualWithin = 1e-15;
    if (isOperator(compare, "neq"))
        return std::fabs(x - k) > kEqualWithin;
    if (isOperator(compare, "lt"))
        return x < k;
    if (isOperator(compare, "lte"))
        return x <= k;
    if (isOperator(compare, "gt"))
        return x > k;
    if (isOperator(compare, "gte"))
        return x >= k;
    return std::fabs(x - k) <= kEqualWithin;
}

// The end of the window is worked out on first use and kept in the filter.
bool timePasses(Interpolate::FilterParam& filter, const QTime& t)
{
    if (!filter.timeEnd.isValid())
        filter.timeEnd = filter.timeStart.addSecs(static_cast<int>(filter.duration));
    if (filter.timeStart <= filter.timeEnd)
        return filter.timeStart <= t && t <= filter.timeEnd;
    return t >= filter.timeStart || t <= filter.timeEnd;  // the window crosses midnight
}

bool filterPasses(Interpolate::FilterParam& filter, const QDateTime& local, double value)
{
    if (!filter.months.empty() && !contains(filter.months, local.date().month()))
        return false;
    if (!filter.weekDays.empty() && !contains(filter.weekDays, local.date().dayOfWeek()))
        return false;
    if (!filter.valueCompare.isEmpty() && !valuePasses(filter.valueCompare, value, filter.value))
        return false;
    if (filter.timeStart.isValid() && !timePasses(filter, local.time()))
        return false;
    return true;
}

} // namespace

void Interpolate::interpolateParamsFromArgs(QString args, long long interval)
{
    const QString difference = detail::differenceKeyword(args);
    if (difference == QLatin1String(detail::kDiffCtrUpCleaned))
        diffHandler = &Interpolate::handle_DIFF_CTRUPCLEANED;
    else if (difference == QLatin1String(detail::kDiff))
        diffHandler = &Interpolate::handle_DIFF;
    else
        diffHandler = nullptr;
    args = detail::withoutDifference(args);

    if (interval == 0) {
        method = RAW;
        return;
    }

    method = PREV_NEXT;
    linear = args.contains(QLatin1String("linear"));
    align = args.contains(QLatin1String("align"));
    fill = args.contains(QLatin1String("fill"));
    fillNull = args.contains(QLatin1String("fillnull"));
    average = args.contains(QLatin1String("average"));

    for (const detail::MethodKeyword& k : detail::kMethodKeywords) {
        if (args.startsWith(QLatin1String(k.keyword))) {
            method = k.method;
            return;
        }
    }

    // No method keyword: linear filling, whatever modifiers were given.
    method = diffHandler ? SUM : PREV_NEXT;
    linear = true;
    align = false;
    fill = true;
    fillNull = false;
}

void Interpolate::parseFilterparams(QJsonArray filters, InterpolateParam& param)
{
    param.filterParams.clear();
    for (const QJsonValue& element : filters) {
        const QJsonObject o = element.toObject();
        FilterParam filter;
        const QString timeStart = o.value(QLatin1String("timeStart")).toString();
        if (!timeStart.isEmpty())
            filter.timeStart = QTime::fromString(timeStart, Qt::ISODateWithMs);
        filter.duration = o.value(QLatin1String("duration")).toInteger(0);
        filter.weekDays = intsOf(o.value(QLatin1String("weekDays")).toArray());
        filter.months = intsOf(o.value(QLatin1String("months")).toArray());
        filter.valueCompare = o.value(QLatin1String("valueCompare")).toString();
        filter.value = o.value(QLatin1String("value")).toDouble(0.0);
        param.filterParams.push_back(std::move(filter));
    }
}

bool Interpolate::filterMatch(DataRecord record)
{
    const QDateTime local = QDateTime::fromMSecsSinceEpoch(record.timestamp);
    const double value = record.value.toDouble();
    for (FilterParam& filter : filters)
        if (filterPasses(filter, local, value))
            return true;
    return false;
}

} // namespace Kel
