// The commands that look at a series without changing it: read, count, and
// the single-record lookups first, last, find and prev.

#include "Commands.h"
#include "CommandLine.h"
#include "Csv.h"
#include "Series.h"
#include "TSFileQueries.h"
#include "Terminal.h"
#include "ValueText.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <unistd.h>

namespace kelts {

namespace {

using Kel::Interpolate;
using Kel::TSFileStorage;
using Records = std::vector<Interpolate::DataRecord>;

enum class OutputFormat { Csv, Json, Table };

// A table's value column fits the longest shortest double, -1.2345678901234567e-123.
constexpr qsizetype kTableValueWidth = 24;

OutputFormat outputFormatOf(const CommandLine& cl)
{
    const QString text = cl.isSet(QStringLiteral("format")) ? cl.value(QStringLiteral("format")) : QStringLiteral("csv");
    if (text == u"csv")
        return OutputFormat::Csv;
    if (text == u"json")
        return OutputFormat::Json;
    if (text != u"table")
        cl.fail(QStringLiteral("--format takes csv, json or table, not '%1'").arg(text));
    return OutputFormat::Table;
}

// Rows of a read as CSV, JSON (one array of objects) or an aligned table:
// a time and one value per column.
class Printer {
public:
    Printer(QMetaType::Type type, TimeFormat format, OutputFormat output = OutputFormat::Csv,
            QStringList columns = {QStringLiteral("value")})
        : type(type), format(format), output(output), columns(std::move(columns))
    {
        for (const QString& c : this->columns)
            widths << std::max<qsizetype>(kTableValueWidth, c.size());
    }
    ~Printer()
    {
        if (output == OutputFormat::Json)
            out.row(QStringList{begun ? QStringLiteral("]") : QStringLiteral("[]")});
    }

    CsvWriter out;
    QMetaType::Type type;
    TimeFormat format;

    void header()
    {
        if (output == OutputFormat::Csv)
            out.row(QStringList{QStringLiteral("timestamp")} + columns);
        else if (output == OutputFormat::Table)
            out.row(QStringList{tableRow(QStringLiteral("timestamp"), columns)});
    }

    // Numbers and times of a CSV row are written straight into it; text and
    // JSON values take the general way, which quotes them where CSV needs it.
    void record(const Interpolate::DataRecord& r)
    {
        if (output != OutputFormat::Csv)
            return row(r.timestamp, {r.value});
        char text[kTimeTextBytes + 1 + kValueTextBytes];
        char* p = writeTime(text, r.timestamp, format);
        if (p) {
            *p++ = ',';
            p = writeValue(p, r.value, type);
        }
        if (p)
            out.row(text, std::size_t(p - text));
        else
            out.row({formatTime(r.timestamp, format), csvField(formatValue(r.value, type))});
    }
    void records(const Records& rs)
    {
        for (const Interpolate::DataRecord& r : rs)
            record(r);
    }

    // A row of several series; an invalid value is an empty cell.
    void row(long long ts, const std::vector<QVariant>& values)
    {
        QStringList cells;
        switch (output) {
        case OutputFormat::Csv:
            cells << formatTime(ts, format);
            for (const QVariant& v : values)
                cells << csvField(formatValue(v, type));
            out.row(cells);
            return;
        case OutputFormat::Table:
            for (const QVariant& v : values)
                cells << formatValue(v, type);
            out.row(QStringList{tableRow(formatTime(ts, format), cells)});
            return;
        case OutputFormat::Json: {
            QString object = QStringLiteral("{\"timestamp\":") +
                             (format == TimeFormat::Ms ? QString::number(ts) : u'"' + formatTime(ts, format) + u'"');
            for (qsizetype i = 0; i < columns.size(); ++i)
                object += u',' + jsonKey(columns[i]) + u':' + jsonValue(values[size_t(i)], type);
            out.row(QStringList{(begun ? QStringLiteral(",") : QStringLiteral("[")) + object + u'}'});
            begun = true;
            return;
        }
        }
    }

private:
    QString tableRow(const QString& time, const QStringList& cells) const
    {
        QString line = time.leftJustified(format == TimeFormat::Ms ? 14 : 29);
        for (qsizetype i = 0; i < cells.size(); ++i)
            line += QStringLiteral("  ") + cells[i].rightJustified(widths[i]);
        return line;
    }
    static QString jsonKey(const QString& name) { return jsonValue(QVariant(name), QMetaType::QString); }

    OutputFormat output;
    QStringList columns;
    QList<qsizetype> widths;
    bool begun = false;
};

[[noreturn]] void readFailed()
{
    throw UsageError{QStringLiteral("%1 read: the storage could not read the series (see the messages above)")
                         .arg(programName())};
}

// The records a raw read returned, for the comparison with what the files
// hold; -1 where no such comparison holds (condensed, or filtered).
long long rawReturned(const ReadRequest& r, std::size_t returned)
{
    return isPlainRaw(r) && r.param.filterParams.empty() ? (long long)returned : -1;
}

void printBackfilled(Printer& printer, const Records& backfilled)
{
    printer.out.blankLine();
    printer.out.row({QStringLiteral("backfilled_timestamp"), QStringLiteral("value")});
    printer.records(backfilled);
}

// One row per replaced value: when the write happened, the record's time,
// and the value the record held before that write.
void printOverwritten(Printer& printer, const std::unordered_map<long long, QVariant>& oMap)
{
    printer.out.blankLine();
    printer.out.row({QStringLiteral("written_at"), QStringLiteral("timestamp"), QStringLiteral("replaced_value")});
    const std::map<long long, QVariant> byWriteTime(oMap.begin(), oMap.end());
    for (const auto& [writtenAt, replaced] : byWriteTime) {
        const QVariantMap map = replaced.toMap();
        std::map<long long, QVariant> byTime;
        for (auto it = map.begin(); it != map.end(); ++it)
            byTime[it.key().toLongLong()] = it.value();
        for (const auto& [ts, value] : byTime)
            printer.out.row({formatTime(writtenAt, printer.format), formatTime(ts, printer.format),
                             csvField(formatValue(value, printer.type))});
    }
}

// Several series on one time grid: each read with the same request, the
// range the widest of theirs, the values merged by time into one row each.
int readSeveral(const CommandLine& cl, const QStringList& dirs, Printer& printer)
{
    std::vector<std::unique_ptr<TSFileStorage>> series;
    std::vector<ReadRequest> requests;
    long long from = LLONG_MAX;
    long long to = LLONG_MIN;
    for (const QString& dir : dirs) {
        requireDirectory(dir);
        const QMetaType::Type type = cl.valueTypeOf(dir);
        if (type != printer.type)
            cl.fail(QStringLiteral("%1 holds %2 values and %3 %4: one column type per read")
                        .arg(dirs.first(), valueTypeName(printer.type), dir, valueTypeName(type)));
        requests.push_back(requestFromOptions(cl, type, true));
        series.push_back(makeStorage(dir, type));
        requireSeries(*series.back(), type);
        long long seriesFrom = 0;
        long long seriesTo = 0;
        if (instantOf(requests.back().from, *series.back(), seriesFrom))
            from = std::min(from, seriesFrom);
        if (instantOf(requests.back().to, *series.back(), seriesTo))
            to = std::max(to, seriesTo);
    }
    if (requests.front().param.interval == 0)
        cl.fail(QStringLiteral("several series are read onto one time grid: give --method and --interval"));
    if (from > to)
        throw NothingFound{QStringLiteral("%1: the series have no records in the range").arg(programName())};
    std::map<long long, std::vector<QVariant>> rows;
    int status = EXIT_DONE;
    for (size_t i = 0; i < series.size(); ++i) {
        const ReadRequest& r = requests[i];
        Records out;
        int count = r.limit;
        if (!series[i]->readDataRecords(r.param, r.chain, from, to, out, r.labelAtStart, count))
            readFailed();
        for (const Interpolate::DataRecord& rec : out) {
            std::vector<QVariant>& cells = rows[rec.timestamp];
            cells.resize(series.size());
            cells[i] = rec.value;
        }
        status = std::max(status, readOutcome(QStringLiteral("read"), *series[i], dirs[int(i)], from, to, -1, 0));
    }
    printer.header();
    long long printed = 0;
    for (auto& [ts, cells] : rows) {
        if (requests.front().limit > 0 && printed++ >= requests.front().limit)
            break;
        cells.resize(series.size());
        printer.row(ts, cells);
    }
    return status;
}

int read(const QStringList& args)
{
    CommandLine cl(readCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    addRequestOptions(cl, true);
    cl.option(QStringLiteral("time"), QStringLiteral("ms|iso"));
    cl.option(QStringLiteral("format"), QStringLiteral("csv|json|table"));
    cl.flag(QStringLiteral("with-backfill"));
    cl.flag(QStringLiteral("with-overwritten"));
    if (!cl.parse(args, 1, 64))
        return EXIT_DONE;
    const QStringList dirs = cl.positional();
    const QString dir = dirs.first();
    const QMetaType::Type type = cl.valueType();
    const OutputFormat output = outputFormatOf(cl);
    const bool withBackfill = cl.isSet(QStringLiteral("with-backfill"));
    const bool withOverwritten = cl.isSet(QStringLiteral("with-overwritten"));
    if ((withBackfill || withOverwritten) && (output != OutputFormat::Csv || dirs.size() > 1))
        cl.fail(QStringLiteral("--with-backfill and --with-overwritten add CSV tables to the read of one series"));
    if (dirs.size() > 1) {
        Printer printer(type, cl.timeFormat(), output, columnNames(dirs));
        return readSeveral(cl, dirs, printer);
    }
    Printer printer(type, cl.timeFormat(), output);
    requireDirectory(dir);
    const ReadRequest r = requestFromOptions(cl, type, true);
    auto storage = makeStorage(dir, type);
    requireSeries(*storage, type);
    const long long from = resolveBound(r.from, *storage);
    const long long to = resolveBound(r.to, *storage);
    checkRange(cl, r.from, r.to, *storage);

    printer.header();
    if (isPlainRaw(r) && !withBackfill && !withOverwritten) {
        const long long returned = readRawInPieces(*storage, r, from, to, QStringLiteral("read"),
                                                   [&printer](const Records& piece) { printer.records(piece); });
        printer.out.flush();
        return readOutcome(QStringLiteral("read"), *storage, dir, from, to, rawReturned(r, returned), r.limit);
    }

    Progress progress(QStringLiteral("reading"));
    progress.show(describeRequest(r));
    Records out;
    Records backfilled;
    std::unordered_map<long long, QVariant> overwritten;
    int count = r.limit;
    if (!storage->readDataRecords(r.param, r.chain, from, to, out, r.labelAtStart, count,
                                  withBackfill ? &backfilled : nullptr, withOverwritten ? &overwritten : nullptr))
        readFailed();
    progress.done();
    // The library gives the interval that reached the limit once more when
    // it closes the read; the operator asked for at most N values.
    if (r.limit > 0 && out.size() > size_t(r.limit))
        out.resize(size_t(r.limit));
    printer.records(out);
    if (withBackfill)
        printBackfilled(printer, backfilled);
    if (withOverwritten)
        printOverwritten(printer, overwritten);
    printer.out.flush();
    return readOutcome(QStringLiteral("read"), *storage, dir, from, to, rawReturned(r, out.size()), r.limit);
}

int count(const QStringList& args)
{
    CommandLine cl(countCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    addRequestOptions(cl, false);
    cl.flag(QStringLiteral("backfill"));
    cl.flag(QStringLiteral("overwritten"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString dir = cl.positional().at(0);
    const QMetaType::Type type = cl.valueType();
    requireDirectory(dir);
    const ReadRequest r = requestFromOptions(cl, type, false);
    auto storage = makeStorage(dir, type);
    requireSeries(*storage, type);
    const long long from = resolveBound(r.from, *storage);
    const long long to = resolveBound(r.to, *storage);
    checkRange(cl, r.from, r.to, *storage);
    const long long n = storage->getCount(r.param, r.chain, from, to, true, cl.isSet(QStringLiteral("backfill")),
                                          cl.isSet(QStringLiteral("overwritten")));
    std::printf("%lld\n", n);
    return EXIT_DONE;
}

// The shared frame of first, last, find and prev: the series, the --time
// format, and one record printed or "nothing found".
class Lookup {
public:
    Lookup(const Command& command, const QStringList& args, bool withAt) : cl(command)
    {
        cl.option(QStringLiteral("type"), QStringLiteral("T"));
        cl.option(QStringLiteral("time"), QStringLiteral("ms|iso"));
        if (withAt)
            cl.option(QStringLiteral("at"), QStringLiteral("TS"));
        wanted = cl.parse(args, 1, 1);
        if (!wanted)
            return;
        type = cl.valueType();
        format = cl.timeFormat();
        if (withAt)
            cl.required(QStringLiteral("at"));
        storage = makeStorage(cl.positional().at(0), type);
        requireSeries(*storage, type);
    }

    // The --at instant; now, first and last are resolved here, since the
    // lookups take plain instants.
    long long at()
    {
        long long ms = 0;
        if (!instantOf(cl.bound(QStringLiteral("at"), TimeBound::Exact), *storage, ms))
            throw NothingFound{QStringLiteral("%1: the series has no records").arg(programName())};
        return ms;
    }

    int print(bool found, const Interpolate::DataRecord& rec, const QString& none)
    {
        if (!found)
            throw NothingFound{QStringLiteral("%1: %2").arg(programName(), none)};
        CsvWriter out;
        out.row({formatTime(rec.timestamp, format), csvField(formatValue(rec.value, type))});
        return EXIT_DONE;
    }

    CommandLine cl;
    bool wanted = false;
    QMetaType::Type type = QMetaType::UnknownType;
    TimeFormat format = TimeFormat::Iso;
    std::unique_ptr<TSFileStorage> storage;
};

int first(const QStringList& args)
{
    Lookup lookup(firstCommand, args, false);
    if (!lookup.wanted)
        return EXIT_DONE;
    Interpolate::DataRecord rec;
    return lookup.print(lookup.storage->getFirstDataRecord(rec), rec, QStringLiteral("the series has no records"));
}

int last(const QStringList& args)
{
    Lookup lookup(lastCommand, args, false);
    if (!lookup.wanted)
        return EXIT_DONE;
    Interpolate::DataRecord rec;
    return lookup.print(lookup.storage->getLastDataRecord(rec), rec, QStringLiteral("the series has no records"));
}

int find(const QStringList& args)
{
    Lookup lookup(findCommand, args, true);
    if (!lookup.wanted)
        return EXIT_DONE;
    const long long at = lookup.at();
    Interpolate::DataRecord rec;
    return lookup.print(lookup.storage->findDataRecord(at, rec), rec,
                        QStringLiteral("no record at %1").arg(isoTime(at)));
}

int prev(const QStringList& args)
{
    Lookup lookup(prevCommand, args, true);
    if (!lookup.wanted)
        return EXIT_DONE;
    const long long at = lookup.at();
    Interpolate::DataRecord rec;
    // Exact: the storage's own findPrevDataRecord may answer with the first
    // record at or after the instant.
    const bool found = Kel::lastRecordBefore(*lookup.storage, at, rec);
    return lookup.print(found, rec, QStringLiteral("no record before %1").arg(isoTime(at)));
}

volatile std::sig_atomic_t stopFollowing = 0;

void onStopSignal(int)
{
    stopFollowing = 1;
}

// The last n records: a window back from the last record, doubled until it
// holds n of them (or the whole series), then read once.
Records lastRecords(TSFileStorage& storage, int n)
{
    Interpolate::DataRecord last;
    Interpolate::DataRecord first;
    if (!storage.getLastDataRecord(last) || !storage.getFirstDataRecord(first))
        return {};
    long long window = kMinuteMs;
    long long from = last.timestamp - window;
    while (from > first.timestamp && storage.getCount({}, {}, from, last.timestamp, true, false, false) < n) {
        window *= 2;
        from = last.timestamp - window;
    }
    Records out;
    int count = 0;
    if (!storage.readDataRecords({}, {}, std::max(from, first.timestamp), last.timestamp, out, false, count))
        throw UsageError{QStringLiteral("%1 tail: the storage could not read the series (see the messages above)")
                             .arg(programName())};
    if (out.size() > size_t(n))
        out.erase(out.begin(), out.end() - n);
    return out;
}

int tail(const QStringList& args)
{
    CommandLine cl(tailCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    cl.option(QStringLiteral("n,lines"), QStringLiteral("N"));
    cl.flag(QStringLiteral("f,follow"));
    cl.option(QStringLiteral("poll"), QStringLiteral("SECONDS"));
    cl.option(QStringLiteral("time"), QStringLiteral("ms|iso"));
    cl.option(QStringLiteral("format"), QStringLiteral("csv|table"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString dir = cl.positional().at(0);
    requireDirectory(dir);
    const QMetaType::Type type = cl.valueType();
    const OutputFormat output = outputFormatOf(cl);
    if (output == OutputFormat::Json)
        cl.fail(QStringLiteral("tail prints csv or table"));
    const int n = int(cl.integer(QStringLiteral("lines"), 10, 0, 1000000));
    const long long pollMs = cl.integer(QStringLiteral("poll"), 1, 1, 3600) * kSecondMs;
    auto storage = makeStorage(dir, type);
    requireSeries(*storage, type);

    Printer printer(type, cl.timeFormat(), output);
    printer.header();
    const Records recent = lastRecords(*storage, n);
    printer.records(recent);
    printer.out.flush();
    if (!cl.isSet(QStringLiteral("follow")))
        return EXIT_DONE;

    // Each look reads the series afresh, as the library does on every call:
    // whatever a writer did in between shows.
    std::signal(SIGINT, onStopSignal);
    std::signal(SIGTERM, onStopSignal);
    Interpolate::DataRecord last;
    std::optional<long long> after;
    if (!recent.empty())
        after = recent.back().timestamp;
    else if (storage->getLastDataRecord(last))
        after = last.timestamp;
    while (!stopFollowing) {
        for (long long slept = 0; slept < pollMs && !stopFollowing; slept += 100)
            ::usleep(100 * 1000);
        if (stopFollowing)
            break;
        Records fresh;
        int count = 0;
        const long long from = after ? *after + 1 : TSFileStorage::TS_FIRST_RECORD;
        if (storage->getLastDataRecord(last) && (!after || last.timestamp > *after) &&
            storage->readDataRecords({}, {}, from, last.timestamp, fresh, false, count)) {
            printer.records(fresh);
            printer.out.flush();
            if (!fresh.empty())
                after = fresh.back().timestamp;
        }
    }
    return EXIT_DONE;
}

} // namespace

const Command tailCommand = {
    "tail", "print the last records, and with -f the new ones as they come",
    R"(Usage: kelts tail DIR [--type T] [-n N] [-f] [--poll SECONDS]

Prints the last N records (default 10) as CSV "timestamp,value"; with -f it
then looks for newer ones every --poll seconds (default 1) and prints them
as they come, until Ctrl-C (SIGINT) or SIGTERM. Records written into the
past (before the last one printed) are not shown.

  -n, --lines N        how many of the last records (default 10)
  -f, --follow         keep printing new records
  --poll SECONDS       how often to look (default 1)
  --format csv|table   how rows print (default csv)
  --time ms|iso        how times print (default iso)

Example:
  kelts tail /data/ts/boiler1 -f
)",
    tail};

const Command readCommand = {
    "read", "print records raw or condensed into intervals, as CSV",
    R"(Usage: kelts read DIR [DIR...] [--type T] [options]

Prints the records of a time range as CSV "timestamp,value", raw or
condensed into one value per interval. Several series (with --method and
--interval) print on one time grid, one column each, named by directory.
--type may be left out where DIR holds a double or float series only.

Range:
  --from TS, --to TS   ms since 1970, ISO 8601 UTC (2024-05-07T09:03:00Z,
                       optional .mmm), or now, first, last, optionally shifted:
                       now-24h, last-15m, first+1d. Default: first to last.
Condensing:
  --method M           method string, e.g. meanA, minMax, max, sum, count,
                       prevNextLinearFill, diffCtrUpCleaned (see docs/cli.md)
  --interval I         seconds (900), 15m, 1h, 1d, or a calendar unit: day,
                       week, month, quarter, halfyear, year
  --align              move the range to whole intervals
  --label-start        stamp each value at its interval's start, not its end
  --offset-min N       calendar intervals begin N minutes east of UTC
                       (60: days run from 23:00 UTC)
  --filters JSON       month, weekday, time-of-day and value filters, as JSON
                       or @FILE, e.g. '[{"weekDays":[1,2,3,4,5]}]'
  --template NAME      a named request (kelts templates lists them); options
                       given beside it override what it sets
  --limit N            at most N values
Output:
  --time ms|iso        how timestamps print (default iso)
  --format csv|json|table
                       CSV (default), one JSON array of objects
                       {"timestamp": ..., "value": ...} (NaN as null), or
                       an aligned table
  --tz ZONE            print and read times in ZONE (Europe/Berlin)
  --with-backfill      after the records, the records that were back-filled
                       (written at or before the series' end) in the range
  --with-overwritten   after the records, the values that writes in the range
                       replaced: written_at,timestamp,replaced_value
  -q, --quiet / -v, --verbose

Examples:
  kelts read /data/ts/boiler1 --type double --from now-1h
  kelts read /data/ts/boiler1 --type double --method meanA --interval 1h --align
  kelts read /data/ts/meter --type double --method diffCtrUpCleaned --interval day --align
)",
    read};

const Command countCommand = {
    "count", "print the number of records or interval values of a range",
    R"(Usage: kelts count DIR --type T [--from TS] [--to TS] [--method M] [--interval I]
                   [--backfill] [--overwritten]

Prints one number: the records from --from to --to (both included; default
first to last), or with --interval the values a read of that request gives.
Takes the range and condensing options of read.

  --backfill      add the records of the back-fill log "P" in the range
  --overwritten   add the records of the overwrite log "O" in the range
  -q, --quiet / -v, --verbose

Example:
  kelts count /data/ts/boiler1 --type double --from 2024-05-07 --to 2024-05-08
)",
    count};

const Command firstCommand = {
    "first", "print the first record",
    R"(Usage: kelts first DIR --type T [--time ms|iso]

Prints the series' first record as one CSV line "timestamp,value"; exits
with 1 when the series has no records.
)",
    first};

const Command lastCommand = {
    "last", "print the last record",
    R"(Usage: kelts last DIR --type T [--time ms|iso]

Prints the series' last record as one CSV line "timestamp,value"; exits with
1 when the series has no records.
)",
    last};

const Command findCommand = {
    "find", "print the record at an instant",
    R"(Usage: kelts find DIR --type T --at TS [--time ms|iso]

Prints the record stamped exactly TS as one CSV line; exits with 1 when
there is none.
)",
    find};

const Command prevCommand = {
    "prev", "print the record before an instant",
    R"(Usage: kelts prev DIR --type T --at TS [--time ms|iso]

Prints the last record stamped before TS as one CSV line; exits with 1 when
there is none.
)",
    prev};

} // namespace kelts
