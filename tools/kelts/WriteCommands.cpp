// The commands that change a series: write (CSV from stdin, checked in full
// before the first record is written) and delete.

#include "Commands.h"
#include "CommandLine.h"
#include "Csv.h"
#include "Series.h"
#include "Terminal.h"
#include "ValueText.h"

#include "RecordCodec.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <optional>
#include <cstdio>
#include <sys/stat.h>
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

bool looksLikeHeader(const CsvReader::Row& row)
{
    const QString first = row.fields.value(0).trimmed();
    return !first.isEmpty() && first.front().isLetter();
}

// The records of a CSV input, row by row: a header (a first row that
// looks like one) is passed over and every other row is checked.
class RecordRows {
public:
    RecordRows(QIODevice& in, QMetaType::Type type, QIODevice* copy = nullptr) : rows(in, copy), type(type) {}

    // The next row's record, or why the row is bad (why set, rec untouched);
    // false at the end of the input.
    bool next(Interpolate::DataRecord& rec, int& line, QString& why)
    {
        CsvReader::Row row;
        if (!rows.next(row))
            return false;
        const bool header = firstRow && looksLikeHeader(row);
        firstRow = false;
        if (header)
            return next(rec, line, why);
        line = row.line;
        why.clear();
        if (!row.error.isEmpty())
            why = row.error;
        else if (row.fields.size() != 2)
            why = QStringLiteral("%1 where timestamp,value is expected (quote values that hold commas)")
                      .arg(row.fields.size() == 1 ? QStringLiteral("1 field")
                                                  : QStringLiteral("%1 fields").arg(row.fields.size()));
        else if (parseTimestamp(row.fields[0], rec.timestamp, why))
            parseValue(row.fields[1], type, rec.value, why);
        return true;
    }

    qint64 bytesRead() const { return rows.bytesRead(); }
    bool failed() const { return rows.failed(); }

private:
    CsvStream rows;
    QMetaType::Type type;
    bool firstRow = true;
};

// What the first pass over the input found: the records of a clean input
// are counted and their order noted; a bad one has its complaints.
struct InputCheck {
    long long records = 0;
    bool ordered = true;   // strictly increasing times: every batch appends behind the one before
    long long first = LLONG_MAX;
    long long last = LLONG_MIN;
    QStringList complaints;
    int badLines = 0;
};

InputCheck checkInput(RecordRows& rows, qint64 totalBytes, const std::function<void(const Interpolate::DataRecord&)>& keep)
{
    Progress progress(QStringLiteral("checking"));
    InputCheck check;
    Interpolate::DataRecord rec;
    int line = 0;
    QString why;
    long long previous = LLONG_MIN;
    while (rows.next(rec, line, why)) {
        if (!why.isEmpty()) {
            if (++check.badLines <= kShownBadLines)
                check.complaints << QStringLiteral("line %1: %2").arg(line).arg(why);
            continue;
        }
        check.ordered = check.ordered && rec.timestamp > previous;
        previous = rec.timestamp;
        check.first = std::min(check.first, rec.timestamp);
        check.last = std::max(check.last, rec.timestamp);
        if (keep)
            keep(rec);
        if (++check.records % kBatchRecords == 0)
            progress.show(totalBytes > 0 ? QStringLiteral("%1 records  %2%").arg(grouped(check.records))
                                               .arg(rows.bytesRead() * 100 / totalBytes)
                                         : QStringLiteral("%1 records").arg(grouped(check.records)));
    }
    return check;
}

[[noreturn]] void refuseBadInput(const InputCheck& check)
{
    QStringList lines;
    for (const QString& c : check.complaints)
        lines << QStringLiteral("%1 write: %2").arg(programName(), c);
    if (check.badLines > kShownBadLines)
        lines << QStringLiteral("%1 write: ... and %2 more bad lines").arg(programName()).arg(check.badLines - kShownBadLines);
    lines << QStringLiteral("%1 write: %2; nothing was written")
                 .arg(programName(), check.badLines == 1 ? QStringLiteral("1 bad line")
                                                         : QStringLiteral("%1 bad lines").arg(check.badLines));
    throw UsageError{lines.join(u'\n')};
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

// Hands batches to the storage; a batch it refuses ends the write with a
// message that says what the storage holds of it and why.
class BatchWriter {
public:
    BatchWriter(TSFileStorage& storage, bool backfill, bool overwritten, long long total)
        : storage(storage), backfill(backfill), overwritten(overwritten), total(total), progress(QStringLiteral("writing"))
    {
    }

    void write(Records batch)
    {
        sortByTimeLaterWins(batch);
        if (batch.empty())
            return;
        const long long first = batch.front().timestamp;
        const long long last = batch.back().timestamp;
        const long long size = static_cast<long long>(batch.size());
        const long long before = storedBetween(storage, first, last);
        if (!storage.writeDataRecords(std::move(batch), backfill, overwritten)) {
            progress.done();
            const long long addedNow = std::max(0LL, storedBetween(storage, first, last) - before);
            const QString why = whyWriteFailed(storage.dir, markersWritten(storage, backfill, overwritten));
            throw UsageError{QStringLiteral("%1 write: the storage refused records from %2 to %3: %4; "
                                            "%5 new records were stored before it stopped (%6 of those %7)")
                                 .arg(programName(), isoTime(first), isoTime(last),
                                      why.isEmpty() ? QStringLiteral("see the messages above") : why,
                                      grouped(added + addedNow), grouped(addedNow), grouped(size))};
        }
        added += storedBetween(storage, first, last) - before;
        written += size;
        progress.show(QStringLiteral("%1 of %2 records  %3%")
                          .arg(grouped(written), grouped(total))
                          .arg(total > 0 ? written * 100 / total : 100));
    }

    long long records() const { return written; }

private:
    TSFileStorage& storage;
    bool backfill;
    bool overwritten;
    long long total;
    long long written = 0;
    long long added = 0;
    Progress progress;
};

// The second pass: the checked input goes to the storage in batches as it
// is read. An input in time order, or one written without companions, is
// never held: a later batch that meets the time of an earlier one
// overwrites it, so the later line still wins. Only an input out of order
// whose back-fills or replaced values are logged is sorted whole first,
// since the logs must see it as one write.
template <typename Next>
long long writeInput(Next next, BatchWriter& writer, bool holdWhole)
{
    Records batch;
    batch.reserve(holdWhole ? 0 : kBatchRecords);
    for (;;) {
        batch.emplace_back();
        if (!next(batch.back())) {
            batch.pop_back();
            break;
        }
        if (!holdWhole && batch.size() == kBatchRecords) {
            writer.write(std::move(batch));
            batch.clear();
            batch.reserve(kBatchRecords);
        }
    }
    if (holdWhole)
        sortByTimeLaterWins(batch);
    for (std::size_t from = 0; from < batch.size(); from += kBatchRecords)
        writer.write(Records(std::make_move_iterator(batch.begin() + long(from)),
                             std::make_move_iterator(batch.begin() + long(std::min(batch.size(), from + kBatchRecords)))));
    return writer.records();
}

// Checked records of a fixed-size type, kept in a temporary file between
// the passes: the time and the value's bytes, 16 bytes a record, read back
// exactly as they were parsed (the parser gives every value of a series
// the same type). Parsing the text once is most of an import's time.
class RecordSpill {
public:
    RecordSpill()
    {
        if (!file.open())
            throw UsageError{QStringLiteral("%1 write: cannot keep the checked records in %2: %3")
                                 .arg(programName(), QDir::tempPath(), file.errorString())};
    }

    void add(const Interpolate::DataRecord& rec)
    {
        if (!valueType.isValid())
            valueType = rec.value.metaType();
        QVariant value = rec.value;
        if (value.metaType() != valueType)
            value.convert(valueType);
        Stored s{rec.timestamp, {}};
        std::memcpy(s.bytes, value.constData(), std::min<std::size_t>(sizeof s.bytes, valueType.sizeOf()));
        buffer.append(reinterpret_cast<const char*>(&s), sizeof s);
        if (buffer.size() >= kSpillBufferBytes)
            flush();
    }

    // Ready for reading back from the first record.
    void rewind()
    {
        flush();
        if (!file.seek(0))
            fail();
        buffer.clear();
        at = 0;
    }

    bool next(Interpolate::DataRecord& rec)
    {
        if (at + qsizetype(sizeof(Stored)) > buffer.size()) {
            buffer = buffer.mid(at) + file.read(kSpillBufferBytes);
            at = 0;
            if (buffer.size() < qsizetype(sizeof(Stored)))
                return false;
        }
        Stored s;
        std::memcpy(&s, buffer.constData() + at, sizeof s);
        at += sizeof s;
        rec.timestamp = s.timestamp;
        rec.value = QVariant(valueType, s.bytes);
        return true;
    }

private:
    struct Stored {
        qint64 timestamp;
        char bytes[8];
    };
    static constexpr qsizetype kSpillBufferBytes = 1 << 20;

    void flush()
    {
        if (file.write(buffer) != buffer.size())
            fail();
        buffer.clear();
    }
    [[noreturn]] void fail()
    {
        const int error = errno;
        throw UsageError{QStringLiteral("%1 write: cannot keep the checked records in %2: %3; nothing was written")
                             .arg(programName(), file.fileName(), QString::fromLocal8Bit(std::strerror(error)))};
    }

    QTemporaryFile file;
    QByteArray buffer;
    qsizetype at = 0;
    QMetaType valueType;
};

// The input, readable twice: stdin itself when it is a file, else a copy
// of it kept in a temporary file while the first pass reads it.
class TwoPassInput {
public:
    explicit TwoPassInput(bool readTwice) : readTwice(readTwice)
    {
        struct stat st;
        seekable = ::fstat(STDIN_FILENO, &st) == 0 && S_ISREG(st.st_mode);
        start = seekable ? ::lseek(STDIN_FILENO, 0, SEEK_CUR) : 0;
        size = seekable ? st.st_size - start : 0;
        if (isatty(STDIN_FILENO) == 1)
            printErrorLine(QStringLiteral("%1 write: reading CSV lines \"timestamp,value\" from the terminal; "
                                          "end with Ctrl-D").arg(programName()));
        if (!stdinFile.open(STDIN_FILENO, QIODevice::ReadOnly))
            throw UsageError{QStringLiteral("%1 write: cannot read stdin").arg(programName())};
        if (readTwice && !seekable && !spill.open())
            throw UsageError{QStringLiteral("%1 write: cannot keep the input in %2: %3")
                                 .arg(programName(), QDir::tempPath(), spill.errorString())};
    }

    QIODevice& first() { return stdinFile; }
    QIODevice* copy() { return readTwice && !seekable ? &spill : nullptr; }
    qint64 bytes() const { return size; }

    QIODevice& second()
    {
        if (!seekable) {
            if (!spill.flush() || !spill.seek(0))
                throw UsageError{QStringLiteral("%1 write: cannot read back %2").arg(programName(), spill.fileName())};
            return spill;
        }
        stdinFile.close();
        if (::lseek(STDIN_FILENO, start, SEEK_SET) != start || !stdinFile.open(STDIN_FILENO, QIODevice::ReadOnly))
            throw UsageError{QStringLiteral("%1 write: cannot read stdin again").arg(programName())};
        return stdinFile;
    }

private:
    bool readTwice;
    bool seekable = false;
    off_t start = 0;
    qint64 size = 0;
    QFile stdinFile;
    QTemporaryFile spill;
};

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

    // Records of a fixed size are kept as they were parsed; text and JSON
    // values, of any size, are parsed again from the input.
    const bool fixedSize = !Kel::detail::isVariableType(type);
    std::optional<RecordSpill> spill;
    if (fixedSize)
        spill.emplace();
    TwoPassInput input(!fixedSize);
    RecordRows firstPass(input.first(), type, input.copy());
    const InputCheck check = checkInput(firstPass, input.bytes(), [&spill](const Interpolate::DataRecord& rec) {
        if (spill)
            spill->add(rec);
    });
    if (firstPass.failed())
        throw UsageError{QStringLiteral("%1 write: the input could not be read; nothing was written").arg(programName())};
    if (check.badLines > 0)
        refuseBadInput(check);
    if (check.records == 0) {
        std::puts("0 records written");
        return EXIT_DONE;
    }

    auto storage = makeStorage(dir, type, maxFileSize);
    const bool backfill = cl.isSet(QStringLiteral("backfill"));
    const bool overwritten = cl.isSet(QStringLiteral("overwritten"));
    const QString unwritable = firstUnwritable(dir, markersWritten(*storage, backfill, overwritten));
    if (!unwritable.isEmpty())
        throw UsageError{QStringLiteral("%1 write: cannot write into %2: permission denied; nothing was written")
                             .arg(programName(), unwritable)};
    BatchWriter writer(*storage, backfill, overwritten, check.records);
    const bool holdWhole = !check.ordered && (backfill || overwritten);
    long long n = 0;
    if (spill) {
        spill->rewind();
        n = writeInput([&spill](Interpolate::DataRecord& rec) { return spill->next(rec); }, writer, holdWhole);
    } else {
        RecordRows secondPass(input.second(), type);
        n = writeInput([&secondPass](Interpolate::DataRecord& rec) {
            int line = 0;
            QString why;
            if (!secondPass.next(rec, line, why))
                return false;
            if (!why.isEmpty())
                throw UsageError{QStringLiteral("%1 write: line %2 changed since it was checked: %3").arg(programName()).arg(line).arg(why)};
            return true;
        }, writer, holdWhole);
        if (secondPass.failed())
            throw UsageError{QStringLiteral("%1 write: the input could not be read again").arg(programName())};
    }
    std::printf("%lld record%s written, %s to %s\n", n, n == 1 ? "" : "s", qPrintable(isoTime(check.first)),
                qPrintable(isoTime(check.last)));
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
