// demo: the first thing a newcomer runs. It writes a week of one-second
// readings of a meter and a temperature, reads them back raw and condensed
// through the library, prints short tables with the time each step took,
// draws two charts, and ends with the kelts commands that do the same.

#include "Commands.h"
#include "CommandLine.h"
#include "DemoData.h"
#include "FileTally.h"
#include "Plot.h"
#include "Series.h"
#include "Terminal.h"
#include "TimeText.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdio>

namespace kelts {

namespace {

using Kel::Interpolate;
using Kel::TSFileStorage;
using Records = std::vector<Interpolate::DataRecord>;

// Monday 2024-05-06 00:00 UTC: a fixed week, so that every run prints the same.
constexpr long long kDemoStart = 1714953600000LL;
// Small enough that the week's files split into day files on the way.
constexpr int kDemoMaxFileSize = 2 * 1024 * 1024;
// Written a day at a time, as a collector would deliver it.
constexpr std::size_t kDemoBatch = 86400;

void say(const QString& line = QString())
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

QString dayLabel(long long ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(QStringLiteral("ddd yyyy-MM-dd"));
}

QString minuteLabel(long long ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(QStringLiteral("ddd yyyy-MM-dd HH:mm"));
}

QString secondLabel(long long ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(QStringLiteral("ddd yyyy-MM-dd HH:mm:ss"));
}

QString fixed(double x, int decimals, int width)
{
    return QStringLiteral("%1").arg(x, width, 'f', decimals);
}

// One read with its timing, labelled at interval starts so that a row says
// which hour or day it is about.
struct TimedRead {
    Records values;
    long long nanoseconds = 0;
};

TimedRead timedRead(TSFileStorage& series, const QString& method, long long interval, long long from, long long to)
{
    Interpolate::InterpolateParam param;
    param.method = method;
    param.interval = interval;
    param.alignStartEndTimestamp = interval != 0;
    TimedRead r;
    int count = 0;
    QElapsedTimer timer;
    timer.start();
    series.readDataRecords(param, {}, from, to, r.values, interval != 0, count);
    r.nanoseconds = timer.nsecsElapsed();
    return r;
}

class Demo {
public:
    Demo(QString dir, int days) : dir(std::move(dir)), days(days) {}

    void run()
    {
        say(QStringLiteral("kelts demo: %1 of one-second readings, written to plain files and read back")
                .arg(days == 7 ? QStringLiteral("a week") : QStringLiteral("%1 days").arg(days)));
        say(QStringLiteral("Directory: %1").arg(dir));
        say();
        makeSample();
        writeSeries();
        readRawAroundWrap();
        readHourlyMeans();
        readDailyExtremes();
        readDailyConsumption();
        drawCharts();
        suggestCommands();
    }

private:
    void makeSample()
    {
        QElapsedTimer timer;
        timer.start();
        sample = makeDemoSample(kDemoStart, days);
        const long long end = sample.start + days * kDayMs - 1000;
        say(QStringLiteral("1. The sample (made up in %1)").arg(describeElapsed(timer.nsecsElapsed())));
        say(QStringLiteral("   meter        an electricity meter's six-digit register in Wh, read every second;"));
        say(QStringLiteral("                it wraps from 999,999 to 0 on %1 and the meter is exchanged")
                .arg(minuteLabel(sample.wrapAt)));
        say(QStringLiteral("                (the new one starts at 0) on %1").arg(minuteLabel(sample.resetAt)));
        say(QStringLiteral("   temperature  a room temperature in degrees Celsius, read every second"));
        say(QStringLiteral("   Both run from %1 to %2 UTC.").arg(secondLabel(sample.start), secondLabel(end)));
        say();
    }

    void writeSeries()
    {
        meter = makeStorage(dir + QStringLiteral("/meter"), QMetaType::Double, kDemoMaxFileSize);
        temperature = makeStorage(dir + QStringLiteral("/temperature"), QMetaType::Double, kDemoMaxFileSize);
        say(QStringLiteral("2. Writing, a day per batch (files split once they pass 2 MiB)"));
        say(QStringLiteral("   series        records    files           on disk      time"));
        writeOne(QStringLiteral("meter"), *meter, std::move(sample.meter));
        writeOne(QStringLiteral("temperature"), *temperature, std::move(sample.temperature));
        const Kel::TSFileInfo first = meter->findFirstFile();
        say(QStringLiteral("   A series is a directory of files named by date: %1 holds")
                .arg(QDir(dir).relativeFilePath(first.filePath())));
        say(QStringLiteral("   the meter's readings of %1, %2 bytes each (time offset and value).")
                .arg(dayLabel(first.getBaseTsMs()))
                .arg(meter->getStoredRecordLength(first.getDirDepth())));
        say();
    }

    void writeOne(const QString& name, TSFileStorage& series, Records records)
    {
        Progress progress(QStringLiteral("writing ") + name);
        QElapsedTimer timer;
        timer.start();
        for (std::size_t at = 0; at < records.size(); at += kDemoBatch) {
            const std::size_t end = std::min(records.size(), at + kDemoBatch);
            Records batch(std::make_move_iterator(records.begin() + long(at)),
                          std::make_move_iterator(records.begin() + long(end)));
            if (!series.writeDataRecords(std::move(batch), false, false))
                throw UsageError{QStringLiteral("%1 demo: writing %2 failed (see the messages above)").arg(programName(), name)};
            progress.show(QStringLiteral("%1 of %2 records").arg(grouped(long(end)), grouped(long(records.size()))));
        }
        const long long elapsed = timer.nsecsElapsed();
        progress.done();
        const FileTally files = tallyFiles(series);
        const long long count = series.getCount({}, {}, TSFileStorage::TS_FIRST_RECORD,
                                                TSFileStorage::TS_LAST_RECORD, true, false, false);
        say(QStringLiteral("   %1 %2    %3 %4 %5")
                .arg(name, -13)
                .arg(grouped(count), 7)
                .arg(describeFiles(files), -15)
                .arg(describeBytes(files.bytes, true), 8)
                .arg(describeElapsed(elapsed), 9));
    }

    void readRawAroundWrap()
    {
        const long long from = sample.wrapAt - 3000;
        const long long to = sample.wrapAt + 2000;
        const TimedRead r = timedRead(*meter, QString(), 0, from, to);
        say(QStringLiteral("3. Raw records of the meter around the wrap-around: %1 records in %2")
                .arg(r.values.size())
                .arg(describeElapsed(r.nanoseconds)));
        say(QStringLiteral("   timestamp                  value"));
        for (const Interpolate::DataRecord& rec : r.values)
            say(QStringLiteral("   %1   %2").arg(isoTime(rec.timestamp)).arg(rec.value.toDouble(), 7, 'f', 0));
        rawCommand = QStringLiteral("read %1/meter --type double --from %2 --to %3").arg(dir, isoTime(from), isoTime(to));
        say();
    }

    void readHourlyMeans()
    {
        const TimedRead r = timedRead(*temperature, QStringLiteral("meanA"), 3600, TSFileStorage::TS_FIRST_RECORD,
                                      TSFileStorage::TS_LAST_RECORD);
        say(QStringLiteral("4. Hourly mean temperature (method meanA, interval 1h): %1 values in %2; the first six")
                .arg(r.values.size())
                .arg(describeElapsed(r.nanoseconds)));
        say(QStringLiteral("   hour from               mean"));
        for (std::size_t i = 0; i < r.values.size() && i < 6; ++i)
            say(QStringLiteral("   %1   %2").arg(minuteLabel(r.values[i].timestamp), fixed(r.values[i].value.toDouble(), 2, 5)));
        say();
        hourlyMeans = r.values;
    }

    void readDailyExtremes()
    {
        const TimedRead r = timedRead(*temperature, QStringLiteral("minMax"), -1, TSFileStorage::TS_FIRST_RECORD,
                                      TSFileStorage::TS_LAST_RECORD);
        const ChartBand band = chartBandOfMinMax(QString(), r.values);
        say(QStringLiteral("5. Daily minimum and maximum temperature (method minMax, interval day): %1 values in %2")
                .arg(r.values.size())
                .arg(describeElapsed(r.nanoseconds)));
        say(QStringLiteral("   day               minimum  maximum"));
        for (const BandPoint& p : band.points)
            say(QStringLiteral("   %1   %2   %3").arg(dayLabel(p.t), fixed(p.low, 2, 6), fixed(p.high, 2, 6)));
        say();
    }

    void readDailyConsumption()
    {
        const TimedRead cleaned = timedRead(*meter, QStringLiteral("diffCtrUpCleaned"), -1,
                                            TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD);
        const TimedRead plain = timedRead(*meter, QStringLiteral("diff"), -1, TSFileStorage::TS_FIRST_RECORD,
                                          TSFileStorage::TS_LAST_RECORD);
        say(QStringLiteral("6. Daily consumption of the meter (method diffCtrUpCleaned, interval day): %1 values in %2")
                .arg(cleaned.values.size())
                .arg(describeElapsed(cleaned.nanoseconds)));
        say(QStringLiteral("   day               diffCtrUpCleaned     plain diff   really used"));
        for (std::size_t i = 0; i < cleaned.values.size(); ++i) {
            const long long day = cleaned.values[i].timestamp;
            const std::size_t index = std::size_t((day - sample.start) / kDayMs);
            const double really = index < sample.dailyWh.size() ? sample.dailyWh[index] / 1000.0 : 0.0;
            const double naive = i < plain.values.size() ? plain.values[i].value.toDouble() / 1000.0 : 0.0;
            QString note;
            if (sample.wrapAt >= day && sample.wrapAt < day + kDayMs)
                note = QStringLiteral("   <- wrap-around");
            else if (sample.resetAt >= day && sample.resetAt < day + kDayMs)
                note = QStringLiteral("   <- meter exchanged");
            say(QStringLiteral("   %1   %2 kWh   %3 kWh   %4 kWh%5")
                    .arg(dayLabel(day), fixed(cleaned.values[i].value.toDouble() / 1000.0, 1, 12),
                         fixed(naive, 1, 8), fixed(really, 1, 7), note));
        }
        say(QStringLiteral("   diffCtrUpCleaned bridges the wrap-around and restarts counting after the exchange;"));
        say(QStringLiteral("   a plain diff counts both as a huge negative consumption. The last day is missing:"));
        say(QStringLiteral("   a day's consumption is complete with the first reading at or after its end, and"));
        say(QStringLiteral("   the sample ends a second before midnight."));
        say();
    }

    void drawCharts()
    {
        const QString temperatureSvg = dir + QStringLiteral("/temperature.svg");
        const QString consumptionSvg = dir + QStringLiteral("/consumption.svg");
        QElapsedTimer timer;
        timer.start();

        Chart t;
        t.title = QStringLiteral("Room temperature (degrees Celsius)");
        t.subtitle = QStringLiteral("hourly mean (meanA, 1h) with the hourly minimum-to-maximum band (minMax, 1h)");
        t.bands.push_back(chartBandOfMinMax(QStringLiteral("hourly minimum to maximum"),
                                            timedRead(*temperature, QStringLiteral("minMax"), 3600,
                                                      TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD)
                                                .values));
        t.lines.push_back(chartLineOf(QStringLiteral("hourly mean"), hourlyMeans));
        writeSvgFile(t, temperatureSvg);

        Chart c;
        c.title = QStringLiteral("Electricity used per hour (Wh)");
        c.subtitle = QStringLiteral("meter readings condensed with diffCtrUpCleaned, 1h");
        c.lines.push_back(chartLineOf(QStringLiteral("consumption per hour"),
                                      timedRead(*meter, QStringLiteral("diffCtrUpCleaned"), 3600,
                                                TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD)
                                          .values));
        writeSvgFile(c, consumptionSvg);

        say(QStringLiteral("7. Charts (drawn in %1); open them in a web browser").arg(describeElapsed(timer.nsecsElapsed())));
        say(QStringLiteral("   %1").arg(temperatureSvg));
        say(QStringLiteral("   %1").arg(consumptionSvg));
        say();
    }

    void suggestCommands()
    {
        const QString kelts = programPath();
        say(QStringLiteral("The same with the kelts command:"));
        say(QStringLiteral("   %1 info %2/meter").arg(kelts, dir));
        say(QStringLiteral("   %1 %2").arg(kelts, rawCommand));
        say(QStringLiteral("   %1 read %2/temperature --type double --method meanA --interval 1h --align --label-start")
                .arg(kelts, dir));
        say(QStringLiteral("   %1 read %2/meter --type double --method diffCtrUpCleaned --interval day --align --label-start")
                .arg(kelts, dir));
        say(QStringLiteral("   %1 plot %2/temperature --type double --method meanA --interval 1h --align --band --out t.svg")
                .arg(kelts, dir));
        say(QStringLiteral("   %1 check %2/meter").arg(kelts, dir));
        say(QStringLiteral("   %1 --help").arg(kelts));
        say();
        say(QStringLiteral("Trends in a browser (or Grafana's Graphite data source) at http://127.0.0.1:8080/:"));
        say(QStringLiteral("   %1 serve %2").arg(kelts, dir));
    }

    QString dir;
    int days;
    DemoSample sample;
    std::unique_ptr<TSFileStorage> meter;
    std::unique_ptr<TSFileStorage> temperature;
    Records hourlyMeans;
    QString rawCommand;
};

// The directory given, which must be new or empty, or a fresh one under the
// system's temporary directory that stays after the demo.
QString demoDirectory(const CommandLine& cl)
{
    if (cl.positional().isEmpty()) {
        QTemporaryDir tmp(QDir::tempPath() + QStringLiteral("/kelts-demo-XXXXXX"));
        if (!tmp.isValid())
            cl.fail(QStringLiteral("cannot make a directory under %1").arg(QDir::tempPath()));
        tmp.setAutoRemove(false);
        return tmp.path();
    }
    const QString dir = QDir::cleanPath(QFileInfo(cl.positional().at(0)).absoluteFilePath());
    const QDir d(dir);
    if (d.exists() && !d.isEmpty())
        cl.fail(QStringLiteral("%1 is not empty; give a new or empty directory").arg(dir));
    if (!QDir().mkpath(dir))
        cl.fail(QStringLiteral("cannot make %1").arg(dir));
    return dir;
}

int demo(const QStringList& args)
{
    CommandLine cl(demoCommand);
    cl.option(QStringLiteral("days"), QStringLiteral("N"));
    if (!cl.parse(args, 0, 1))
        return EXIT_DONE;
    const int days = int(cl.integer(QStringLiteral("days"), 7, 1, 28));
    Demo(demoDirectory(cl), days).run();
    return EXIT_DONE;
}

} // namespace

const Command demoCommand = {
    "demo", "write a sample week, read it back, draw charts: start here",
    R"(Usage: kelts demo [DIR] [--days N]

Writes a realistic sample into DIR (default: a fresh directory under /tmp,
which the demo names and leaves in place): a week of one-second readings of
an electricity meter, whose register wraps around once and is reset once,
and of a room temperature. Then reads them back raw and condensed (hourly
mean, daily minimum and maximum, daily consumption with diffCtrUpCleaned),
prints short tables with the time each step took, draws two SVG charts and
shows the kelts commands that do the same.

  --days N    a sample of N days instead of 7 (1 to 28)
)",
    demo};

} // namespace kelts
