// gaps: where a series says less than it seems to. Gaps between records
// longer than a length, runs of NaN values, and flat lines (one value held
// longer than a length), found in one raw walk over the range.

#include "Commands.h"
#include "CommandLine.h"
#include "Csv.h"
#include "Series.h"
#include "Terminal.h"
#include "ValueText.h"

#include "RecordCodec.h"

#include <QVariant>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace kelts {

namespace {

using Kel::Interpolate;
using Kel::TSFileStorage;

// One finding: a gap, a run of NaN values, or a flat line.
struct Finding {
    const char* kind;
    long long from = 0;
    long long to = 0;
    long long records = 0;   // the records inside (0 for a gap)
};

// Walks records in time order and reports what it finds.
class GapFinder {
public:
    GapFinder(long long gapMs, long long flatMs, std::vector<Finding>& out) : gapMs(gapMs), flatMs(flatMs), out(out) {}

    void take(const Interpolate::DataRecord& r)
    {
        if (any && r.timestamp - last > gapMs)
            out.push_back({"gap", last, r.timestamp, 0});
        const bool nan = isNan(r.value);
        if (nan && !inNan)
            nanRun = {"nan", r.timestamp, r.timestamp, 0};
        if (!nan && inNan)
            out.push_back(nanRun);
        if (nan)
            nanRun.to = r.timestamp, ++nanRun.records;
        inNan = nan;

        if (flatMs > 0) {
            if (!any || nan || r.value != flatValue) {
                closeFlat();
                flatValue = nan ? QVariant() : r.value;
                flatRun = {"flat", r.timestamp, r.timestamp, 0};
            }
            flatRun.to = r.timestamp;
            ++flatRun.records;
        }
        any = true;
        last = r.timestamp;
    }

    void finish()
    {
        if (inNan)
            out.push_back(nanRun);
        closeFlat();
        std::sort(out.begin(), out.end(), [](const Finding& a, const Finding& b) { return a.from < b.from; });
    }

private:
    static bool isNan(const QVariant& v)
    {
        const int type = v.metaType().id();
        return (type == QMetaType::Double || type == QMetaType::Float) && std::isnan(v.toDouble());
    }

    void closeFlat()
    {
        if (flatValue.isValid() && flatRun.records > 1 && flatRun.to - flatRun.from > flatMs)
            out.push_back(flatRun);
        flatValue = QVariant();
    }

    long long gapMs;
    long long flatMs;
    std::vector<Finding>& out;
    bool any = false;
    long long last = 0;
    bool inNan = false;
    Finding nanRun{"nan"};
    QVariant flatValue;
    Finding flatRun{"flat"};
};

// "1d 2h", "15m 30s", "250ms": a length as an operator reads it.
QString describeLength(long long ms)
{
    const std::pair<long long, const char*> units[] = {{kDayMs, "d"}, {kHourMs, "h"}, {kMinuteMs, "m"}, {kSecondMs, "s"}};
    QStringList parts;
    for (const auto& [size, name] : units) {
        if (ms >= size && parts.size() < 2) {
            parts << QString::number(ms / size) + QLatin1String(name);
            ms %= size;
        }
    }
    if (parts.isEmpty())
        parts << QString::number(ms) + QStringLiteral("ms");
    return parts.join(u' ');
}

// The typical step between records, from the first ones: the gap length
// a series is judged by when --longer-than is not given.
long long typicalStep(TSFileStorage& storage, long long from, long long to)
{
    std::vector<Interpolate::DataRecord> first;
    int count = 1001;
    storage.readDataRecords({}, {}, from, to, first, false, count);
    std::vector<long long> steps;
    for (size_t i = 1; i < first.size(); ++i)
        steps.push_back(first[i].timestamp - first[i - 1].timestamp);
    if (steps.empty())
        return kSecondMs;
    std::nth_element(steps.begin(), steps.begin() + long(steps.size() / 2), steps.end());
    return std::max(kSecondMs, steps[steps.size() / 2]);
}

void printTable(const std::vector<Finding>& found, TimeFormat format)
{
    std::printf("%-5s  %-29s  %-29s  %-12s  %s\n", "kind", "from", "to", "length", "records");
    for (const Finding& f : found)
        std::printf("%-5s  %-29s  %-29s  %-12s  %s\n", f.kind, qPrintable(formatTime(f.from, format)),
                    qPrintable(formatTime(f.to, format)), qPrintable(describeLength(f.to - f.from)),
                    f.records > 0 ? qPrintable(grouped(f.records)) : "");
}

void printCsv(const std::vector<Finding>& found, TimeFormat format)
{
    CsvWriter out;
    out.row({QStringLiteral("kind"), QStringLiteral("from"), QStringLiteral("to"), QStringLiteral("seconds"),
             QStringLiteral("records")});
    for (const Finding& f : found)
        out.row({QLatin1String(f.kind), formatTime(f.from, format), formatTime(f.to, format),
                 QString::number(double(f.to - f.from) / 1000.0, 'f', 3), QString::number(f.records)});
}

int gaps(const QStringList& args)
{
    CommandLine cl(gapsCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    cl.option(QStringLiteral("from"), QStringLiteral("TS"));
    cl.option(QStringLiteral("to"), QStringLiteral("TS"));
    cl.option(QStringLiteral("longer-than"), QStringLiteral("LENGTH"));
    cl.option(QStringLiteral("flat-longer-than"), QStringLiteral("LENGTH"));
    cl.option(QStringLiteral("format"), QStringLiteral("csv|table"));
    cl.option(QStringLiteral("time"), QStringLiteral("ms|iso"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString dir = cl.positional().at(0);
    requireDirectory(dir);
    const QMetaType::Type type = cl.valueType();
    const QString format = cl.isSet(QStringLiteral("format")) ? cl.value(QStringLiteral("format"))
                                                              : QStringLiteral("csv");
    if (format != u"csv" && format != u"table")
        cl.fail(QStringLiteral("--format takes csv or table, not '%1'").arg(format));
    const auto length = [&cl](const char* name, long long fallback) {
        if (!cl.isSet(QLatin1String(name)))
            return fallback;
        long long ms = 0;
        QString why;
        if (!parseDurationMs(cl.value(QLatin1String(name)), ms, why) || ms <= 0)
            cl.fail(QStringLiteral("--%1: %2").arg(QLatin1String(name), why.isEmpty() ? QStringLiteral("give a length such as 5m") : why));
        return ms;
    };
    ReadRequest r;
    r.from = cl.bound(QStringLiteral("from"), TimeBound::First);
    r.to = cl.bound(QStringLiteral("to"), TimeBound::Last);
    auto storage = makeStorage(dir, type);
    requireSeries(*storage, type);
    const long long from = resolveBound(r.from, *storage);
    const long long to = resolveBound(r.to, *storage);
    checkRange(cl, r.from, r.to, *storage);

    // Flat lines mean little for on/off signals and text: looked for there
    // only when asked.
    const bool flatByDefault = !Kel::detail::isVariableType(type) && type != QMetaType::Bool;
    const long long gapMs = length("longer-than", 5 * typicalStep(*storage, from, to));
    const long long flatMs = length("flat-longer-than", flatByDefault ? kHourMs : 0);
    std::vector<Finding> found;
    GapFinder finder(gapMs, flatMs, found);
    const long long records = readRawInPieces(*storage, r, from, to, QStringLiteral("gaps"), [&finder](const Records& piece) {
        for (const Interpolate::DataRecord& rec : piece)
            finder.take(rec);
    });
    finder.finish();
    if (format == u"table")
        printTable(found, cl.timeFormat());
    else
        printCsv(found, cl.timeFormat());
    const auto countOf = [&found](const char* kind) {
        return std::count_if(found.begin(), found.end(), [kind](const Finding& f) { return qstrcmp(f.kind, kind) == 0; });
    };
    printErrorLine(QStringLiteral("%1 gaps: %2 records; %3 gaps longer than %4, %5 runs of NaN, %6 flat lines%7")
                       .arg(programName(), grouped(records))
                       .arg(countOf("gap"))
                       .arg(describeLength(gapMs))
                       .arg(countOf("nan"))
                       .arg(countOf("flat"))
                       .arg(flatMs > 0 ? QStringLiteral(" longer than %1").arg(describeLength(flatMs)) : QStringLiteral(" (not looked for)")));
    return readOutcome(QStringLiteral("gaps"), *storage, dir, from, to, records, 0);
}

} // namespace

const Command gapsCommand = {
    "gaps", "find gaps, NaN values and flat lines in a series",
    R"(Usage: kelts gaps DIR [--type T] [options]

Walks the raw records of the range once and lists, in time order:
  gap    two records further apart than --longer-than (no record between)
  nan    a run of NaN values (float and double series)
  flat   one value held longer than --flat-longer-than (a stuck sensor)
as CSV "kind,from,to,seconds,records", or as a table with --format table.
A summary goes to stderr.

Options:
  --from TS, --to TS           the range (default first to last)
  --longer-than LENGTH         a gap is longer than this (default five times
                               the series' usual step between records)
  --flat-longer-than LENGTH    a flat line is longer than this (default 1h;
                               not looked for in bool and text series
                               unless given)
  --format csv|table           how the findings print (default csv)
  --time ms|iso                how times print (default iso)

Example:
  kelts gaps /data/ts/boiler1 --longer-than 5m --format table
)",
    gaps};

} // namespace kelts
