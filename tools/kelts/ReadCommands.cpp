// The commands that look at a series without changing it: read, count, and
// the single-record lookups first, last, find and prev.

#include "Commands.h"
#include "CommandLine.h"
#include "Csv.h"
#include "Series.h"
#include "TSFileQueries.h"
#include "Terminal.h"
#include "ValueText.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace kelts {

namespace {

using Kel::Interpolate;
using Kel::TSFileStorage;
using Records = std::vector<Interpolate::DataRecord>;

struct Printer {
    Printer(QMetaType::Type type, TimeFormat format) : type(type), format(format) {}

    CsvWriter out;
    QMetaType::Type type;
    TimeFormat format;

    // Numbers and times are written straight into the row; text and JSON
    // values take the general way, which quotes them where CSV needs it.
    void record(const Interpolate::DataRecord& r)
    {
        char row[kTimeTextBytes + 1 + kValueTextBytes];
        char* p = writeTime(row, r.timestamp, format);
        if (p) {
            *p++ = ',';
            p = writeValue(p, r.value, type);
        }
        if (p)
            out.row(row, std::size_t(p - row));
        else
            out.row({formatTime(r.timestamp, format), csvField(formatValue(r.value, type))});
    }
    void records(const Records& rs)
    {
        for (const Interpolate::DataRecord& r : rs)
            record(r);
    }
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

int read(const QStringList& args)
{
    CommandLine cl(readCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    addRequestOptions(cl, true);
    cl.option(QStringLiteral("time"), QStringLiteral("ms|iso"));
    cl.flag(QStringLiteral("with-backfill"));
    cl.flag(QStringLiteral("with-overwritten"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString dir = cl.positional().at(0);
    const QMetaType::Type type = cl.valueType();
    Printer printer(type, cl.timeFormat());
    requireDirectory(dir);
    const ReadRequest r = requestFromOptions(cl, type, true);
    auto storage = makeStorage(dir, type);
    requireSeries(*storage, type);
    const long long from = resolveBound(r.from, *storage);
    const long long to = resolveBound(r.to, *storage);
    checkRange(cl, r.from, r.to, *storage);
    const bool withBackfill = cl.isSet(QStringLiteral("with-backfill"));
    const bool withOverwritten = cl.isSet(QStringLiteral("with-overwritten"));

    printer.out.row({QStringLiteral("timestamp"), QStringLiteral("value")});
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

} // namespace

const Command readCommand = {
    "read", "print records raw or condensed into intervals, as CSV",
    R"(Usage: kelts read DIR --type T [options]

Prints the records of a time range as CSV "timestamp,value", raw or
condensed into one value per interval.

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
