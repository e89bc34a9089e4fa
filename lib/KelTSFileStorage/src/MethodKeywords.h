// The words of a method string: the method keywords in the order the engine
// tries them, each with the name the tool shows for it, and the two
// difference keywords. The engine parses method strings with them and the
// tool checks and names methods with them. Header only: the tool uses it
// without linking library internals.
#pragma once

#include "Interpolate.h"

#include <QString>

namespace Kel::detail {

struct MethodKeyword {
    const char* keyword;  // as the lower-cased method string starts
    Interpolate::InterpolateMethod method;
    const char* name;     // as the tool writes it
};

// The first keyword that starts the string wins, so "prevnext" comes before
// "prev" and "minmax" before "min".
inline constexpr MethodKeyword kMethodKeywords[] = {
    {"prevnext", Interpolate::PREV_NEXT, "prevNext"}, {"prev", Interpolate::PREV, "prev"},
    {"next", Interpolate::NEXT, "next"},              {"minmax", Interpolate::MIN_MAX, "minMax"},
    {"min", Interpolate::MIN, "min"},                 {"max", Interpolate::MAX, "max"},
    {"sum", Interpolate::SUM, "sum"},                 {"meana", Interpolate::MEAN_A, "meanA"},
    {"meang", Interpolate::MEAN_G, "meanG"},          {"meanh", Interpolate::MEAN_H, "meanH"},
    {"means", Interpolate::MEAN_S, "meanS"},          {"median", Interpolate::MEDIAN, "median"},
    {"mode", Interpolate::MODE, "mode"},              {"count", Interpolate::COUNT, "count"},
};

// The difference pre-stages; the first is looked for first, since it holds
// the second.
inline constexpr char kDiffCtrUpCleaned[] = "diffCtrUpCleaned";
inline constexpr char kDiff[] = "diff";

// The difference keyword a method string holds, as it is spelled here; empty
// when none.
inline QString differenceKeyword(const QString& method)
{
    for (const char* keyword : {kDiffCtrUpCleaned, kDiff})
        if (method.contains(QLatin1String(keyword), Qt::CaseInsensitive))
            return QLatin1String(keyword);
    return QString();
}

// The method string lower-cased with its difference keyword taken out: where
// the engine looks for the method keyword.
inline QString withoutDifference(QString method)
{
    method = method.toLower();
    const QString difference = differenceKeyword(method);
    if (!difference.isEmpty())
        method.remove(difference, Qt::CaseInsensitive);
    return method;
}

// "raw" for RAW, the keyword's name for the others.
inline QString methodName(Interpolate::InterpolateMethod method)
{
    if (method == Interpolate::RAW)
        return QStringLiteral("raw");
    for (const MethodKeyword& k : kMethodKeywords)
        if (k.method == method)
            return QLatin1String(k.name);
    return QString();
}

} // namespace Kel::detail
