// plot: a trend chart of a read, written as an SVG file, so that a person
// can look at a series instead of reading numbers.

#include "Commands.h"
#include "CommandLine.h"
#include "Plot.h"
#include "Series.h"
#include "ValueText.h"
#include "RecordCodec.h"

#include <QFile>
#include <QDir>
#include <QFileInfo>

#include <climits>
#include <cstdio>
#include <limits>

namespace kelts {

using Kel::Interpolate;
using Records = std::vector<Interpolate::DataRecord>;

namespace {

double chartValue(const QVariant& value)
{
    return value.isValid() ? value.toDouble() : std::numeric_limits<double>::quiet_NaN();
}

} // namespace

ChartLine chartLineOf(const QString& label, const Records& records)
{
    ChartLine line{label, {}};
    line.points.reserve(records.size());
    for (const Interpolate::DataRecord& r : records)
        line.points.emplace_back(r.timestamp, chartValue(r.value));
    return line;
}

ChartBand chartBandOfMinMax(const QString& label, const Records& records)
{
    ChartBand band{label, {}};
    for (std::size_t i = 0; i < records.size(); ++i) {
        const double low = chartValue(records[i].value);
        const bool paired = i + 1 < records.size() && records[i + 1].timestamp == records[i].timestamp + 1;
        const double high = paired ? chartValue(records[++i].value) : low;
        band.points.push_back({records[i].timestamp, low, high});
    }
    return band;
}

void writeSvgFile(const Chart& chart, const QString& path)
{
    QString svg;
    if (!renderSvg(chart, svg))
        throw NothingFound{QStringLiteral("%1: no values to draw in the range; %2 was not written").arg(programName(), path)};
    QFile file(path);
    const QByteArray bytes = svg.toUtf8();
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        throw UsageError{QStringLiteral("%1: cannot write %2: %3").arg(programName(), path, file.errorString())};
}

namespace {

Records readForChart(Kel::TSFileStorage& storage, const ReadRequest& r, long long from, long long to)
{
    Records out;
    int count = r.limit;
    if (!storage.readDataRecords(r.param, r.chain, from, to, out, r.labelAtStart, count))
        throw UsageError{QStringLiteral("%1 plot: the storage could not read the series (see the messages above)")
                             .arg(programName())};
    return out;
}

QString lineLabel(const ReadRequest& r)
{
    if (r.param.interval == 0)
        return r.param.method.isEmpty() ? QStringLiteral("values") : r.param.method;
    return QStringLiteral("%1 per %2").arg(r.param.method.isEmpty() ? QStringLiteral("prevNextLinearFill") : r.param.method,
                                           describeInterval(r.param.interval));
}

// What one series adds to the chart: its line (steps for on/off signals,
// bars when asked), or the band of a minMax read, and with --band the band
// of its minimum and maximum beside the line.
void addSeries(Chart& chart, Kel::TSFileStorage& storage, const ReadRequest& r, long long from, long long to,
               const QString& prefix, QMetaType::Type type, bool bars, bool withBand, Records& values)
{
    values = readForChart(storage, r, from, to);
    const MethodReading reading = readMethod(r.param);
    if (reading.method == Interpolate::MIN_MAX && !reading.average) {
        chart.bands.push_back(chartBandOfMinMax(prefix + QStringLiteral("minimum to maximum per %1").arg(describeInterval(r.param.interval)), values));
        return;
    }
    ChartLine line = chartLineOf(prefix + lineLabel(r), values);
    if (type == QMetaType::Bool)
        line.style = ChartLine::Style::Steps;
    if (bars) {
        line.style = ChartLine::Style::Bars;
        line.barsStartAtPoint = r.labelAtStart;
        line.barMs = r.param.interval > 0 ? r.param.interval * kSecondMs : 0;
        for (std::size_t i = 1; line.barMs == 0 && i < values.size(); ++i)   // calendar units: the first step
            line.barMs = values[i].timestamp - values[i - 1].timestamp;
    }
    chart.lines.push_back(std::move(line));
    if (withBand) {
        ReadRequest band = r;
        band.param.method = QStringLiteral("minMax") + differenceKeyword(r.param.method);
        chart.bands.push_back(chartBandOfMinMax(prefix + QStringLiteral("minimum to maximum"), readForChart(storage, band, from, to)));
    }
}

int plot(const QStringList& args)
{
    CommandLine cl(plotCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    addRequestOptions(cl, true);
    cl.option(QStringLiteral("o,out"), QStringLiteral("FILE"));
    cl.option(QStringLiteral("title"), QStringLiteral("TEXT"));
    cl.option(QStringLiteral("unit"), QStringLiteral("TEXT"));
    cl.flag(QStringLiteral("band"));
    cl.flag(QStringLiteral("bars"));
    if (!cl.parse(args, 1, 8))
        return EXIT_DONE;
    const QStringList dirs = cl.positional();
    const QString path = cl.required(QStringLiteral("out"));
    const bool withBand = cl.isSet(QStringLiteral("band"));
    const bool bars = cl.isSet(QStringLiteral("bars"));

    Chart chart;
    chart.unit = cl.value(QStringLiteral("unit"));
    chart.zone = timeZone();
    const QStringList names = dirs.size() > 1 ? columnNames(dirs) : QStringList{QString()};
    long long drawn = 0;
    int status = EXIT_DONE;
    ReadRequest first;
    long long firstT = LLONG_MAX;
    long long lastT = LLONG_MIN;
    for (qsizetype i = 0; i < dirs.size(); ++i) {
        const QString& dir = dirs[i];
        requireDirectory(dir);
        const QMetaType::Type type = cl.valueTypeOf(dir);
        if (Kel::detail::isVariableType(type))
            cl.fail(QStringLiteral("%1 values cannot be drawn").arg(valueTypeName(type)));
        const ReadRequest r = requestFromOptions(cl, type, true);
        if (withBand && r.param.interval == 0)
            cl.fail(QStringLiteral("--band shows the minimum and maximum of each interval: give --interval as well"));
        if (bars && r.param.interval == 0)
            cl.fail(QStringLiteral("--bars draws one bar per interval: give --method and --interval as well"));
        auto storage = makeStorage(dir, type);
        requireSeries(*storage, type);
        const long long from = resolveBound(r.from, *storage);
        const long long to = resolveBound(r.to, *storage);
        checkRange(cl, r.from, r.to, *storage);
        Records values;
        addSeries(chart, *storage, r, from, to, names[i].isEmpty() ? QString() : names[i] + QStringLiteral(": "), type,
                  bars, withBand, values);
        drawn += static_cast<long long>(values.size());
        if (!values.empty()) {
            firstT = std::min(firstT, values.front().timestamp);
            lastT = std::max(lastT, values.back().timestamp);
        }
        if (i == 0)
            first = r;
        status = std::max(status, readOutcome(QStringLiteral("plot"), *storage, dir, from, to, -1, 0));
    }
    const QString defaultTitle =
        dirs.size() == 1 ? QStringLiteral("%1 (%2)").arg(QFileInfo(QDir::cleanPath(dirs.first())).fileName(),
                                                         valueTypeName(cl.valueTypeOf(dirs.first())))
                         : names.join(QStringLiteral(", "));
    chart.title = cl.isSet(QStringLiteral("title")) ? cl.value(QStringLiteral("title")) : defaultTitle;
    chart.subtitle = drawn == 0 ? describeRequest(first)
                                : QStringLiteral("%1, %2 values, %3 to %4").arg(describeRequest(first)).arg(drawn)
                                      .arg(formatTime(firstT, TimeFormat::Iso), formatTime(lastT, TimeFormat::Iso));
    writeSvgFile(chart, path);
    std::printf("%s: %lld values drawn\n", qPrintable(path), drawn);
    return status;
}

} // namespace

const Command plotCommand = {
    "plot", "draw a read as an SVG trend chart",
    R"(Usage: kelts plot DIR [DIR...] [--type T] --out FILE.svg [read options] [chart options]

Draws the values of a read (raw or condensed; the range and condensing
options of read apply) as a trend chart: time across (UTC, or local with
--tz), values up. Several series share the chart, each with its colour (a
setpoint beside its measured value). A line breaks where records are
missing for longer than five of its usual steps; bool series are drawn as
steps. A minMax read is drawn as the band between minimum and maximum;
--band adds that band to any condensed read. Long series are thinned to
the extremes of each pixel column, so peaks stay visible and the file
stays small.

  -o, --out FILE   the SVG file to write
  --band           also read minMax over the same intervals and shade the
                   band between minimum and maximum
  --bars           one bar per interval (consumption per hour or day)
  --title TEXT     the chart's title (default: the directory's name and type)
  --unit TEXT      the unit of the value axis ("kWh", "degC")
  --tz ZONE        the time axis in local time of ZONE (Europe/Berlin)

Examples:
  kelts plot /data/ts/boiler1 --type double --from now-1d --out today.svg
  kelts plot /data/ts/boiler1 --type double --method meanA --interval 1h \
      --align --band --out week.svg
  kelts plot /data/ts/meter --method diffCtrUpCleaned --interval day --align \
      --bars --unit kWh --out consumption.svg
  kelts plot /data/ts/setpoint /data/ts/temperature --from now-1d --out loop.svg
)",
    plot};

} // namespace kelts
