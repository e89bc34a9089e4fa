// The requests of Graphite's render API as kelts serve understands them:
// Graphite's time forms, and targets as expressions of series paths (with
// globs) and the functions that map onto the storage's condensed reads.
// Pure text work, no storage: parsed here, evaluated by the server.
#pragma once

#include <QString>
#include <QStringList>
#include <QStringView>

#include <memory>
#include <vector>

namespace kelts {

// Limits a request must keep to: beyond them it is refused with 400.
constexpr int kMaxTargetLength = 2000;
constexpr int kMaxTargetDepth = 16;

// A Graphite time: "now", "-6h", "now-15min", "+1d", epoch seconds,
// "HH:MM_YYYYMMDD", "YYYYMMDD" (midnight UTC). Relative to nowMs. Units: s,
// min, h, d, w, mon (30 days), y (365 days).
bool parseGraphiteTime(QStringView text, long long nowMs, long long& ms, QString& why);

// A Graphite length such as "1h", "15min", "1d", "1mon": seconds when
// positive; a calendar unit of the storage (-1 day, -2 week, -3 month,
// -6 year) for "1d", "1w", "1mon" and "1y" when calendar is set.
bool parseGraphiteInterval(QStringView text, bool calendar, long long& interval, QString& why);

// A target expression: a series path (dotted, with *, ?, [..] and {a,b}
// globs), a number, a quoted string, or a function call.
struct Target {
    enum class Kind { Path, Number, String, Call };
    Kind kind = Kind::Path;
    QString text;   // the path, the string, the function's name, the number as written
    double number = 0.0;
    std::vector<Target> args;
};

bool parseTarget(QStringView text, Target& target, QString& why);

// Whether a dotted name matches a dotted glob, segment by segment: *
// (within a segment), ?, [abc], [a-z] and {one,two}.
bool globMatches(QStringView glob, QStringView name);
// The segment of a glob at a level, for matching one level of a tree.
bool segmentMatches(QStringView glob, QStringView segment);

} // namespace kelts
