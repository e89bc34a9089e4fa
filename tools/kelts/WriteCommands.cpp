// The commands that change a series: write (CSV from stdin, checked in full
// before the first record is written) and delete.

#include "Commands.h"
#include "CommandLine.h"
#include "Csv.h"
#include "Series.h"
#include "Terminal.h"
#include "ValueText.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <sys/statvfs.h>
#include <unistd.h>

namespace kelts {

namespace {

using Kel::Interpolate;
using Kel::TSFileStorage;
using Records = std::vector<Interpolate::DataRecord>;

// Large batches keep the number of file opens and splits small; 100,000
// records of a QVariant each take a few megabytes.
constexpr std::size_t kBatchRecords = 100000;
// Messages for this many bad lines at most, then a count.
constexpr int kShownBadLines = 10;

QString readAllStdin()
{
    if (isatty(fileno(stdin)) == 1)
        printErrorLine(QStringLiteral("%1 write: reading CSV lines \"timestamp,value\" from the terminal; "
                                      "end with Ctrl-D").arg(programName()));
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(in.readAll());
}

bool looksLikeHeader(const CsvReader::Row& row)
{
    const QString first = row.fields.value(0).trimmed();
    return !first.isEmpty() && first.front().isLetter();
}

// Every line checked; the records of a clean input, or the complaints.
struct ParsedInput {
    Records records;
    QStringList complaints;
    int badLines = 0;
};

void complain(ParsedInput& input, int line, const QString& what)
{
    if (++input.badLines <= kShownBadLines)
        input.complaints << QStringLiteral("line %1: %2").arg(line).arg(what);
}

ParsedInput parseInput(const QString& text, QMetaType::Type type)
{
    ParsedInput input;
    input.records.reserve(std::size_t(text.count(u'\n')) + 1);
    CsvReader reader(text);
    CsvReader::Row row;
    bool firstRow = true;
    while (reader.next(row)) {
        const bool header = firstRow && looksLikeHeader(row);
        firstRow = false;
        if (header)
            continue;
        if (!row.error.isEmpty()) {
            complain(input, row.line, row.error);
            continue;
        }
        if (row.fields.size() != 2) {
            complain(input, row.line,
                     QStringLiteral("%1 where timestamp,value is expected (quote values that hold commas)")
                         .arg(row.fields.size() == 1 ? QStringLiteral("1 field") : QStringLiteral("%1 fields").arg(row.fields.size())));
            continue;
        }
        Interpolate::DataRecord rec;
        QString why;
        if (!parseTimestamp(row.fields[0], rec.timestamp, why) ||
            !parseValue(row.fields[1], type, rec.value, why)) {
            complain(input, row.line, why);
            continue;
        }
        input.records.push_back(std::move(rec));
    }
    return input;
}

// Sorted, so that each batch appends behind the one before, and one record
// per time: of lines with the same time the later one wins, as a correction
// appended to a file should. (Within one batch the storage itself would keep
// the largest of such values, whatever their order.)
void sortByTimeLaterWins(Records& records)
{
    // Most inputs come in time order with one line per time already.
    const auto notAfter = [](const Interpolate::DataRecord& a, const Interpolate::DataRecord& b) {
        return a.timestamp >= b.timestamp;
    };
    if (std::adjacent_find(records.begin(), records.end(), notAfter) == records.end())
        return;
    std::stable_sort(records.begin(), records.end(),
                     [](const Interpolate::DataRecord& a, const Interpolate::DataRecord& b) {
                         return a.timestamp < b.timestamp;
                     });
    std::size_t kept = 0;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (kept > 0 && records[kept - 1].timestamp == records[i].timestamp)
            --kept;
        if (kept != i)
            records[kept] = std::move(records[i]);
        ++kept;
    }
    records.resize(kept);
}

std::size_t batchEnd(const Records& records, std::size_t from)
{
    return std::min(records.size(), from + kBatchRecords);
}

// The first entry of the series' tree that this process may not change: a
// directory it cannot write into or a file it cannot write. The storage
// retries every open for seconds, which helps against a file another
// process holds for a moment but never against a permission; so the tool
// looks before it writes. Empty when there is none.
QString firstUnwritable(const QString& seriesDir, const QStringList& markers)
{
    QString existing = QDir::cleanPath(QFileInfo(seriesDir).absoluteFilePath());
    while (!QFileInfo(existing).exists())
        existing = QFileInfo(existing).path();
    if (::access(QFile::encodeName(existing).constData(), W_OK | X_OK) != 0)
        return existing;
    for (const QString& marker : markers) {
        const QString top = seriesDir + u'/' + marker;
        if (!QFileInfo(top).isDir())
            continue;
        if (::access(QFile::encodeName(top).constData(), W_OK | X_OK) != 0)
            return top;
        QDirIterator it(top, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            const int mode = it.fileInfo().isDir() ? W_OK | X_OK : W_OK;
            if (::access(QFile::encodeName(path).constData(), mode) != 0)
                return path;
        }
    }
    return QString();
}

// Why a write into the series failed, as far as the system tells: a full
// file system, or an entry that cannot be written; empty when neither.
QString whyWriteFailed(const QString& seriesDir, const QStringList& markers)
{
    QString existing = QDir::cleanPath(QFileInfo(seriesDir).absoluteFilePath());
    while (!QFileInfo(existing).exists())
        existing = QFileInfo(existing).path();
    struct statvfs fs;
    if (::statvfs(QFile::encodeName(existing).constData(), &fs) == 0 && fs.f_bavail == 0)
        return QStringLiteral("no space left on the device");
    const QString unwritable = firstUnwritable(seriesDir, markers);
    if (!unwritable.isEmpty())
        return QStringLiteral("permission denied on %1").arg(unwritable);
    return QString();
}

// The storage's own directory and the companions a write may change.
QStringList markersWritten(TSFileStorage& storage, bool backfill, bool overwritten)
{
    const QString marker = storage.getMarkerForValueType(storage.valueType);
    QStringList markers{marker};
    if (backfill)
        markers << marker + u'P';
    if (overwritten)
        markers << marker + u'O';
    return markers;
}

long long storedBetween(TSFileStorage& storage, long long first, long long last)
{
    return storage.getCount({}, {}, first, last, true, false, false);
}

long long writeInBatches(TSFileStorage& storage, Records& records, bool backfill, bool overwritten)
{
    Progress progress(QStringLiteral("writing"));
    std::size_t written = 0;
    long long added = 0;
    while (written < records.size()) {
        const std::size_t end = batchEnd(records, written);
        const long long first = records[written].timestamp;
        const long long last = records[end - 1].timestamp;
        const long long before = storedBetween(storage, first, last);
        Records batch(std::make_move_iterator(records.begin() + long(written)),
                      std::make_move_iterator(records.begin() + long(end)));
        if (!storage.writeDataRecords(std::move(batch), backfill, overwritten)) {
            progress.done();
            const long long addedNow = std::max(0LL, storedBetween(storage, first, last) - before);
            const QString why = whyWriteFailed(storage.dir, markersWritten(storage, backfill, overwritten));
            throw UsageError{QStringLiteral("%1 write: the storage refused records from %2 to %3: %4; "
                                            "%5 new records were stored before it stopped (%6 of those %7)")
                                 .arg(programName(), isoTime(first), isoTime(last),
                                      why.isEmpty() ? QStringLiteral("see the messages above") : why,
                                      grouped(added + addedNow), grouped(addedNow),
                                      grouped(static_cast<long long>(end - written)))};
        }
        added += storedBetween(storage, first, last) - before;
        written = end;
        progress.show(QStringLiteral("%1 of %2 records  %3%")
                          .arg(grouped(static_cast<long long>(written)), grouped(static_cast<long long>(records.size())))
                          .arg(written * 100 / records.size()));
    }
    return static_cast<long long>(written);
}

int write(const QStringList& args)
{
    CommandLine cl(writeCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    cl.option(QStringLiteral("max-file-size"), QStringLiteral("BYTES"));
    cl.flag(QStringLiteral("backfill"));
    cl.flag(QStringLiteral("overwritten"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString dir = cl.positional().at(0);
    const QMetaType::Type type = cl.valueType();
    const int maxFileSize = int(cl.integer(QStringLiteral("max-file-size"), kDefaultMaxFileSize, 64, INT_MAX));
    if (QFileInfo(dir).exists() && !QFileInfo(dir).isDir())
        cl.fail(QStringLiteral("%1 is not a directory").arg(dir));

    ParsedInput input = parseInput(readAllStdin(), type);
    if (input.badLines > 0) {
        QStringList lines;
        for (const QString& c : input.complaints)
            lines << QStringLiteral("%1 write: %2").arg(programName(), c);
        if (input.badLines > kShownBadLines)
            lines << QStringLiteral("%1 write: ... and %2 more bad lines").arg(programName()).arg(input.badLines - kShownBadLines);
        lines << QStringLiteral("%1 write: %2; nothing was written")
                     .arg(programName(), input.badLines == 1 ? QStringLiteral("1 bad line")
                                                             : QStringLiteral("%1 bad lines").arg(input.badLines));
        throw UsageError{lines.join(u'\n')};
    }
    if (input.records.empty()) {
        std::puts("0 records written");
        return EXIT_DONE;
    }

    sortByTimeLaterWins(input.records);
    const long long first = input.records.front().timestamp;
    const long long last = input.records.back().timestamp;
    auto storage = makeStorage(dir, type, maxFileSize);
    const bool backfill = cl.isSet(QStringLiteral("backfill"));
    const bool overwritten = cl.isSet(QStringLiteral("overwritten"));
    const QString unwritable = firstUnwritable(dir, markersWritten(*storage, backfill, overwritten));
    if (!unwritable.isEmpty())
        throw UsageError{QStringLiteral("%1 write: cannot write into %2: permission denied; nothing was written")
                             .arg(programName(), unwritable)};
    const long long n = writeInBatches(*storage, input.records, backfill, overwritten);
    std::printf("%lld record%s written, %s to %s\n", n, n == 1 ? "" : "s", qPrintable(isoTime(first)),
                qPrintable(isoTime(last)));
    return EXIT_DONE;
}

struct MarkerChoice {
    bool own = false;
    bool p = false;
    bool o = false;
};

MarkerChoice markerChoice(const CommandLine& cl)
{
    const QString m = cl.value(QStringLiteral("marker"));
    if (!cl.isSet(QStringLiteral("marker")) || m.isEmpty())
        return {true, false, false};
    if (m == u"P")
        return {false, true, false};
    if (m == u"O")
        return {false, false, true};
    if (m == u"all")
        return {true, true, true};
    cl.fail(QStringLiteral("--marker takes \"\" (the series), P, O or all, not '%1'").arg(m));
}

long long rawCount(TSFileStorage& storage, long long from, long long to, const MarkerChoice& c)
{
    return storage.getCount({}, {}, from, to, c.own, c.p, c.o);
}

int deleteRecords(const QStringList& args)
{
    CommandLine cl(deleteCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    cl.option(QStringLiteral("from"), QStringLiteral("TS"));
    cl.option(QStringLiteral("to"), QStringLiteral("TS"));
    cl.option(QStringLiteral("marker"), QStringLiteral("M"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString dir = cl.positional().at(0);
    const QMetaType::Type type = cl.valueType();
    cl.required(QStringLiteral("from"));
    cl.required(QStringLiteral("to"));
    const MarkerChoice choice = markerChoice(cl);

    auto storage = makeStorage(dir, type);
    requireSeries(*storage, type);
    const TimeBound fromBound = cl.bound(QStringLiteral("from"), TimeBound::First);
    const TimeBound toBound = cl.bound(QStringLiteral("to"), TimeBound::Last);
    const long long from = resolveBound(fromBound, *storage);
    const long long to = resolveBound(toBound, *storage);
    checkRange(cl, fromBound, toBound, *storage);

    const long long before = rawCount(*storage, from, to, choice);
    bool done = true;
    if (choice.own && choice.p && choice.o)
        done = storage->deleteDataRecords(from, to);
    else
        done = storage->deleteDataRecords(from, to, choice.own ? QString() : choice.p ? QStringLiteral("P") : QStringLiteral("O"));
    const long long left = rawCount(*storage, from, to, choice);
    if (!done)
        throw UsageError{QStringLiteral("%1 delete: the storage could not delete (see the messages above)").arg(programName())};
    const long long deleted = before - left;
    std::printf("%lld record%s deleted\n", deleted, deleted == 1 ? "" : "s");
    if (left > 0)
        throw UsageError{QStringLiteral("%1 delete: %2 records are still in the range (see the messages above)")
                             .arg(programName()).arg(left)};
    return EXIT_DONE;
}

} // namespace

const Command writeCommand = {
    "write", "write CSV records from stdin into a series",
    R"(Usage: kelts write DIR --type T [options] < records.csv

Reads CSV lines "timestamp,value" from stdin and writes them into the
series of type T under DIR (the directory is created when missing). Every
line is checked first: if one is bad, nothing is written and the status is 2.

Options:
  --type T               bool, char, uchar, short, ushort, int, uint, long,
                         ulong, float, double, string or variant
  --max-file-size BYTES  split a file into files of shorter periods once it
                         grows beyond this size (default 4194304)
  --backfill             log the records written at or before the series'
                         last record in its companion "P"
                         (see them with read --with-backfill)
  --overwritten          keep the values this write replaces in the
                         companion "O" (see them with read --with-overwritten)
  -q, --quiet            show only the storage's failures
  -v, --verbose          show every message of the storage

Input:
  A header line is allowed; blank lines and lines starting with # are
  skipped. Timestamps are milliseconds since 1970 or ISO 8601 UTC
  (2024-05-07T09:03:00Z, optionally with .mmm). Values: true/false/1/0 for
  bool; whole numbers within the type's range; decimals (also nan, inf) for
  float and double; any text for string (quote it when it holds commas,
  quotes or line breaks); a JSON value for variant. Lines may come in any
  order; of two lines with the same time the later one wins.

Example:
  printf 'timestamp,value\n2024-05-07T09:00:00Z,21.5\n' |
      kelts write /data/ts/boiler1 --type double
)",
    write};

const Command deleteCommand = {
    "delete", "delete the records of a time range",
    R"(Usage: kelts delete DIR --type T --from TS --to TS [--marker M]

Deletes the records from TS to TS (both included) and prints how many went.

Options:
  --type T       the series' value type
  --from TS      first instant to delete: ms, ISO 8601 UTC, now, first, last,
  --to TS        or one of those shifted: last-1h, now-7d
  --marker M     which records: "" the series itself (default), P the log of
                 back-filled timestamps, O the log of overwritten values, or
                 all three. The range of P and O is the time of the writes.
  -q, --quiet / -v, --verbose

Example:
  kelts delete /data/ts/boiler1 --type double \
      --from 2024-05-07T00:00:00Z --to 2024-05-07T23:59:59.999Z
)",
    deleteRecords};

} // namespace kelts
