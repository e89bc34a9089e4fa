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

int plot(const QStringList& args)
{
    CommandLine cl(plotCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    addRequestOptions(cl, true);
    cl.option(QStringLiteral("o,out"), QStringLiteral("FILE"));
    cl.option(QStringLiteral("title"), QStringLiteral("TEXT"));
    cl.flag(QStringLiteral("band"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString dir = cl.positional().at(0);
    const QMetaType::Type type = cl.valueType();
    const QString path = cl.required(QStringLiteral("out"));
    if (Kel::detail::isVariableType(type))
        cl.fail(QStringLiteral("%1 values cannot be drawn").arg(valueTypeName(type)));
    requireDirectory(dir);
    const ReadRequest r = requestFromOptions(cl, type, true);
    const bool withBand = cl.isSet(QStringLiteral("band"));
    if (withBand && r.param.interval == 0)
        cl.fail(QStringLiteral("--band shows the minimum and maximum of each interval: give --interval as well"));

    auto storage = makeStorage(dir, type);
    requireSeries(*storage, type);
    const long long from = resolveBound(r.from, *storage);
    const long long to = resolveBound(r.to, *storage);
    checkRange(cl, r.from, r.to, *storage);

    Chart chart;
    chart.title = cl.isSet(QStringLiteral("title"))
                      ? cl.value(QStringLiteral("title"))
                      : QStringLiteral("%1 (%2)").arg(QFileInfo(QDir::cleanPath(dir)).fileName(), valueTypeName(type));
    const Records values = readForChart(*storage, r, from, to);
    const MethodReading reading = readMethod(r.param);
    if (reading.method == Interpolate::MIN_MAX && !reading.average) {
        chart.bands.push_back(chartBandOfMinMax(QStringLiteral("minimum to maximum per %1").arg(describeInterval(r.param.interval)), values));
    } else {
        chart.lines.push_back(chartLineOf(lineLabel(r), values));
        if (withBand) {
            ReadRequest band = r;
            band.param.method = QStringLiteral("minMax") + differenceKeyword(r.param.method);
            chart.bands.push_back(chartBandOfMinMax(QStringLiteral("minimum to maximum"), readForChart(*storage, band, from, to)));
        }
    }
    chart.subtitle = values.empty() ? describeRequest(r)
                                    : QStringLiteral("%1, %2 values, %3 to %4").arg(describeRequest(r)).arg(values.size())
                                          .arg(isoTime(values.front().timestamp), isoTime(values.back().timestamp));
    writeSvgFile(chart, path);
    std::printf("%s: %zu values drawn\n", qPrintable(path), values.size());
    return readOutcome(QStringLiteral("plot"), *storage, dir, from, to, -1, 0);
}

} // namespace

const Command plotCommand = {
    "plot", "draw a read as an SVG trend chart",
    R"(Usage: kelts plot DIR --type T --out FILE.svg [read options] [--band] [--title TEXT]

Draws the values of a read (raw or condensed; the range and condensing
options of read apply) as a trend chart: time in UTC across, values up. A
minMax read is drawn as the band between minimum and maximum; --band adds
that band to any condensed read. Long series are thinned to the extremes of
each pixel column, so peaks stay visible and the file stays small.

  -o, --out FILE   the SVG file to write
  --band           also read minMax over the same intervals and shade the
                   band between minimum and maximum
  --title TEXT     the chart's title (default: the directory's name and type)

Examples:
  kelts plot /data/ts/boiler1 --type double --from now-1d --out today.svg
  kelts plot /data/ts/boiler1 --type double --method meanA --interval 1h \
      --align --band --out week.svg
)",
    plot};

} // namespace kelts
