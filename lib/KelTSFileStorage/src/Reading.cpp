// Reading and counting ranges. Files are walked strictly in time order from
// the file that holds the start of the range; records are decoded from
// blocks of whole records and handed to the interpolation engine (or, for
// plain raw reads, appended to the caller's vector directly; inside an
// interval, handed over as runs of plain values). Memory of a
// read is its output plus one block, never the series.

#include "TSFileStorage.h"

#include "EngineSupport.h"
#include "Logging.h"
#include "MarkerStorage.h"
#include "MethodKeywords.h"
#include "RecordFile.h"
#include "StorageNames.h"
#include "TSFileColumns.h"

#include <algorithm>
#include <utility>
#include <unordered_set>

namespace Kel {

using Record = Interpolate::DataRecord;

namespace {

void logOpenFailure(const TSFileInfo& info, const QString& failure, int line)
{
    detail::storageLog(detail::LOG_FAILURE, failure, line).arg(info.filePath()).endl();
}

long long rawCount(TSFileStorage& storage, long long start, long long end);

// One walk over the files of a read range, feeding what it reads to the
// engine, to the output directly, or (for "P") joining the back-filled
// records of the series.
class RangeWalk {
public:
    RangeWalk(TSFileStorage& series, TSFileStorage& storage, Interpolate& engine,
              std::vector<Record>& out, bool isP, long long readStart, long long readEnd)
        : series(series), storage(storage), engine(engine), out(out), isP(isP),
          direct(!isP && engine.passesRawRecordsThrough()),
          plainRuns(!isP && detail::takesPlainRuns(engine)), readStart(readStart), readEnd(readEnd)
    {
        if (isP)
            for (const Record& r : out)
                joined.insert(r.timestamp);
    }

    void run()
    {
        std::optional<detail::RecordFile> file;
        TSFileInfo info = detail::openLookedUp(file, storage.valueType, &blocks, [this] {
            const TSFileInfo at = storage.findFile(readStart);
            return at.found() ? at : storage.findNextFile(at);
        });
        while (info.found()) {
            // A file that begins before the range is read from the record
            // that the search probes last: the match, or a neighbour of the
            // place where readStart would go. Where several records share
            // readStart (the "P" log writes them side by side), those before
            // the probed one are passed over, as reads always have.
            if (file->isOpen())
                readFile(*file, startPosition(*file));
            else
                logOpenFailure(info, QStringLiteral("Could not open '%1' for read (readDataRecords)"), 1011);
            if (stopped)
                return;
            const TSFileInfo done = info;
            info = detail::openLookedUp(file, storage.valueType, &blocks, [&] { return storage.findNextFile(done); });
        }
    }

private:
    // Where the read begins in a file: at its start, unless the file begins
    // before the range. Then the format's search decides, as it always has:
    // the record it probes last. For the series' own records that is where
    // the bound search lands too, after the records it skips, and the bound
    // search reads less; the "P" log, whose records share timestamps, and
    // Float files, whose search lands inside records, keep the probe.
    qint64 startPosition(detail::RecordFile& file)
    {
        if (file.base() >= readStart)
            return 0;
        if (isP || file.layout().type == QMetaType::Float)
            return file.probePosition(readStart);
        return file.lowerBound(readStart) * file.layout().stride;
    }

    void readFile(detail::RecordFile& file, qint64 position)
    {
        const int stride = file.layout().stride;
        if (position % stride != 0)
            readFromInsideARecord(file, position);
        else
            readRecords(file, position / stride);
    }

    // A Float file's search lands inside records (see RecordFile): the read
    // goes on from there by the bytes each record takes, as it always has,
    // and takes what it reads there.
    void readFromInsideARecord(detail::RecordFile& file, qint64 position)
    {
        for (; position < file.wholeBytes() && !stopped; position = file.positionAfterRecordAt(position))
            take(file.recordAtPosition(position));
    }

    void readRecords(detail::RecordFile& file, qint64 from)
    {
        // A file whose period reaches past the range is read only up to the
        // range's end (and, for the engine, the one record after it). The
        // "P" log is appended in write order, which a clock set back can
        // leave unsorted: it is walked to the first record past the end.
        const qint64 count = file.count();
        const bool pastEnd = !isP && file.info().getPeriodEndTsMs() - 1 > readEnd;
        const qint64 end = pastEnd ? file.upperBound(readEnd) : count;
        // Raw records go straight from the file into the output, or into
        // the caller's columns.
        if (direct && columns && !file.layout().variable) {
            stopped = file.appendColumnsInRange(from, end - from, readStart, readEnd, *columns) || end < count;
            return;
        }
        if (direct) {
            makeRoom(file, end - from);
            stopped = file.appendInRange(from, end - from, readStart, readEnd, out) || end < count;
            return;
        }
        const qint64 to = std::min(count, end + 1);
        const detail::RecordLayout& l = file.layout();
        const bool plainValues = plainRuns && !l.variable;
        file.visitBlocks(from, to - from, [&](const uchar* p, qint64 n) {
            for (qint64 i = 0; i < n && !stopped; ++i) {
                if (plainValues && engine.acceptsRecords) {
                    i += detail::takePlainRun(engine, p + i * l.stride, n - i, l, file.base(), readStart, readEnd);
                    if (i == n)
                        break;
                }
                const uchar* r = p + i * l.stride;
                take(Record{detail::decodeTimestamp(r, l.offsetWidth, file.base()),
                            file.valueOf(r + l.offsetWidth)});
            }
            return !stopped;
        });
    }

    // A raw read makes room in the output once: for the records of the
    // first file that does not fit, and of the rest of the range as the raw
    // count gives them (file sizes, and a search in the last file). Grown by
    // doubling, the output would take up to twice what it holds, and the old
    // copy besides while it grows. A read that fits in one file counts
    // nothing more. Should the count come out short (a writer added records
    // meanwhile), the vector grows as usual.
    void makeRoom(const detail::RecordFile& file, qint64 records)
    {
        if (out.size() + size_t(records) <= out.capacity() || roomMade)
            return;
        roomMade = true;
        const long long restStart = file.info().getPeriodEndTsMs();
        const long long rest = restStart <= readEnd ? rawCount(storage, restStart, readEnd) : 0;
        out.reserve(out.size() + size_t(records) + size_t(std::max(0LL, rest)));
    }

    void take(Record rec)
    {
        if (rec.timestamp < readStart)
            return;
        if (rec.timestamp > readEnd) {
            if (!isP && engine.needsDataRecordAfterRangeEnd())
                engine.handleNextRawRecord(std::move(rec));
            stopped = true;
        } else if (!isP) {
            stopped = !engine.handleNextRawRecord(std::move(rec));
        } else {
            joinBackfilled(rec.value.toLongLong());
        }
    }

    // A "P" record names a timestamp of the series that was back-filled; the
    // series' record at that time joins the output once.
    void joinBackfilled(long long ts)
    {
        if (joined.count(ts))
            return;
        Record rec;
        if (series.findDataRecord(ts, rec)) {
            out.push_back(std::move(rec));
            joined.insert(ts);
        }
    }

public:
    RawColumns* columns = nullptr;  // where a raw read of fixed-length values goes instead of out

private:
    TSFileStorage& series;
    TSFileStorage& storage;
    Interpolate& engine;
    std::vector<Record>& out;
    const bool isP;
    const bool direct;
    const bool plainRuns;  // records inside the current interval may go as plain runs
    const long long readStart;
    const long long readEnd;
    bool stopped = false;
    bool roomMade = false;
    detail::BlockBuffer blocks;  // lent to every file of the walk
    std::unordered_set<long long> joined;
};

long long rawCount(TSFileStorage& storage, long long start, long long end)
{
    bool coversFirst = false;
    bool coversLast = false;
    if (!storage.adjustTimestamps(&storage, start, end, coversFirst, coversLast))
        return 0;
    long long total = 0;
    TSFileInfo info = storage.findFile(start);
    if (!info.found())
        info = storage.findNextFile(info);
    while (info.found()) {
        const long long base = info.getBaseTsMs();
        if (base > end)
            break;
        const detail::RecordLayout layout(storage.valueType, info.getDirDepth());
        if (base >= start && info.getPeriodEndTsMs() - 1 <= end) {
            // The whole period lies inside the range: the size tells, in
            // record lengths (for Float more records than the file holds;
            // see RecordFile).
            total += info.size() / layout.recordLength;
        } else {
            // A file at either end is opened; should the writer split it
            // meanwhile, the file of its first instant in range is counted.
            std::optional<detail::RecordFile> file;
            bool first = true;
            info = detail::openLookedUp(file, storage.valueType, nullptr, [&] {
                if (std::exchange(first, false))
                    return info;
                const TSFileInfo at = storage.findFile(std::max(start, base));
                return at.found() ? at : storage.findNextFile(at);
            });
            if (!info.found())
                break;
            if (file->isOpen())
                total += file->upperBound(end) - file->lowerBound(start);
            else
                logOpenFailure(info, QStringLiteral("Could not open '%1' for read (getCount)"), 797);
        }
        info = storage.findNextFile(info);
    }
    return total;
}

// The record before the range, where the engine asks for one, as
// findPrevDataRecord answers it. That lookup keeps its rule: the probed
// record is taken even where it lies at or after the instant (the engine
// then meets it again in the range), and an earlier file is asked only where
// no file holds the instant.
void feedPreviousRecord(TSFileStorage& storage, Interpolate& engine, long long readStart)
{
    Record rec{0, QVariant()};
    if (engine.needsPreviousDataRecords() && storage.findPrevDataRecord(readStart, rec))
        engine.handleNextRawRecord(std::move(rec));
}

// A raw read of plain bounds (no difference, filter, chain or count) reads
// [start, end] as it stands: the series' first and last records would only
// clamp the range to where records are, which gives the same records. It is
// spared the two lookups, each a walk down the tree's listings. Not for Float,
// whose last-record lookup answers with other bytes and so bounds its reads,
// nor for the companions.
bool isPlainRawRead(const Interpolate::InterpolateParam& param, const std::vector<Interpolate::InterpolateParam>& params,
                    long long start, long long end, bool lastFlag, const QString& marker, QMetaType::Type type)
{
    const auto plainBound = [](long long t) {
        return t != TSFileStorage::TS_NOW && t != TSFileStorage::TS_FIRST_RECORD && t != TSFileStorage::TS_LAST_RECORD;
    };
    return param.interval == 0 && params.empty() && param.filterParams.empty() && !lastFlag && marker.isEmpty() &&
           type != QMetaType::Float && plainBound(start) && plainBound(end) &&
           detail::differenceKeyword(param.method).isEmpty();
}

} // namespace

bool TSFileStorage::readDataRecordsInt(Interpolate::InterpolateParam param,
                                       std::vector<Interpolate::InterpolateParam> params,
                                       long long start, long long end,
                                       std::vector<Interpolate::DataRecord>& out,
                                       bool labelAtIntervalStart, int& resultCount, QString marker,
                                       bool lastFlag)
try
{
    detail::MarkerStorage storage(*this, marker);
    if (!storage) {
        resultCount = 0;
        return true;
    }
    checkValidInterval(param.interval, marker);
    Record first{start, QVariant()};
    Record last{end, QVariant()};
    if (!isPlainRawRead(param, params, start, end, lastFlag, marker, storage->valueType) &&
        (!storage->getFirstDataRecord(first) || !storage->getLastDataRecord(last))) {
        resultCount = 0;
        return true;
    }

    Interpolate engine(std::move(param), std::move(params), start, end, first.timestamp,
                       last.timestamp, &out, storage->valueType, labelAtIntervalStart, resultCount,
                       lastFlag);
    long long readStart = 0;
    long long readEnd = 0;
    const bool inRange = engine.getRange(readStart, readEnd);
    const bool counted = lastFlag && !out.empty() && out.front().timestamp == 0;
    if (!inRange || counted) {
        resultCount = 0;
    } else {
        feedPreviousRecord(*storage.get(), engine, readStart);
        RangeWalk(*this, *storage.get(), engine, out, marker == QLatin1String(detail::names::kBackfillLog), readStart, readEnd)
            .run();
    }
    engine.finalize();
    return true;
} catch (...) {
    detail::logCaughtException("readDataRecords");
    return false;
}

bool readRawColumns(TSFileStorage& series, long long start, long long end, RawColumns& columns)
try
{
    if (detail::isVariableType(series.valueType)) {
        detail::storageLog(detail::LOG_FAILURE, QStringLiteral("No columns of variable values (readRawColumns)"), __LINE__).endl();
        return false;
    }
    // The bounds as a raw read of readDataRecords takes them.
    const Interpolate::InterpolateParam raw;
    Record first{start, QVariant()};
    Record last{end, QVariant()};
    if (!isPlainRawRead(raw, {}, start, end, false, QString(), series.valueType) &&
        (!series.getFirstDataRecord(first) || !series.getLastDataRecord(last)))
        return true;
    std::vector<Record> out;
    int resultCount = 0;
    Interpolate engine(raw, {}, start, end, first.timestamp, last.timestamp, &out, series.valueType, false, resultCount,
                       false);
    long long readStart = 0;
    long long readEnd = 0;
    if (!engine.getRange(readStart, readEnd))
        return true;
    const long long expected = rawCount(series, readStart, readEnd);
    columns.timestamps.reserve(columns.timestamps.size() + size_t(std::max(0LL, expected)));
    (detail::isRealType(series.valueType) ? columns.reals.reserve(columns.reals.size() + size_t(std::max(0LL, expected)))
                                          : columns.wholes.reserve(columns.wholes.size() + size_t(std::max(0LL, expected))));
    const size_t before = columns.timestamps.size();
    RangeWalk walk(series, series, engine, out, false, readStart, readEnd);
    walk.columns = &columns;
    walk.run();
    engine.finalize();
    // A Float file read from inside a record (see RecordFile) hands its
    // records to the engine: they come first.
    if (!out.empty()) {
        std::vector<long long> times;
        for (const Record& r : out)
            times.push_back(r.timestamp);
        columns.timestamps.insert(columns.timestamps.begin() + long(before), times.begin(), times.end());
        std::vector<double> values;
        for (const Record& r : out)
            values.push_back(r.value.toDouble());
        const size_t valuesBefore = columns.reals.size() - (columns.timestamps.size() - before - times.size());
        columns.reals.insert(columns.reals.begin() + long(valuesBefore), values.begin(), values.end());
    }
    return true;
} catch (...) {
    detail::logCaughtException("readRawColumns");
    return false;
}

bool TSFileStorage::readDataRecords(Interpolate::InterpolateParam param,
                                    std::vector<Interpolate::InterpolateParam> params,
                                    long long start, long long end,
                                    std::vector<Interpolate::DataRecord>& out,
                                    bool labelAtIntervalStart, int& resultCount,
                                    std::vector<Interpolate::DataRecord>* pRecords,
                                    std::unordered_map<long long, QVariant>* oMap)
{
    if (!readDataRecordsInt(param, params, start, end, out, labelAtIntervalStart, resultCount,
                            QString(), false))
        return false;
    // The companions are read with the same request and the same result
    // counter: each takes the count the read before it left as its limit,
    // and the caller's count ends as the last of them leaves it.
    if (pRecords) {
        readDataRecordsInt(param, params, start, end, *pRecords, labelAtIntervalStart, resultCount,
                           QLatin1String(detail::names::kBackfillLog), false);
        std::stable_sort(pRecords->begin(), pRecords->end(),
                         [](const Record& a, const Record& b) { return a.timestamp < b.timestamp; });
    }
    if (oMap) {
        std::vector<Record> replaced;
        readDataRecordsInt(param, params, start, end, replaced, labelAtIntervalStart, resultCount,
                           QLatin1String(detail::names::kOverwrittenValues), false);
        for (Record& r : replaced)
            (*oMap)[r.timestamp] = std::move(r.value);
    }
    return true;
}

long long TSFileStorage::getCount(Interpolate::InterpolateParam param,
                                  std::vector<Interpolate::InterpolateParam> params, long long start,
                                  long long end, bool own, bool withP, bool withO)
{
    long long total = 0;
    if (own)
        total += getCountInt(param, params, start, end, QString());
    if (withP)
        total += getCountInt(param, params, start, end, QLatin1String(detail::names::kBackfillLog));
    if (withO)
        total += getCountInt(param, params, start, end, QLatin1String(detail::names::kOverwrittenValues));
    return total;
}

long long TSFileStorage::getCountInt(Interpolate::InterpolateParam param,
                                     std::vector<Interpolate::InterpolateParam> params,
                                     long long start, long long end, QString marker)
try
{
    detail::MarkerStorage storage(*this, marker);
    if (!storage)
        return 0;
    if (param.interval == 0)
        return rawCount(*storage.get(), start, end);

    checkValidInterval(param.interval, marker);
    std::vector<Record> out;
    int resultCount = 0;
    readDataRecordsInt(std::move(param), std::move(params), start, end, out, false, resultCount,
                       marker, true);
    return out.empty() ? 0 : out.front().value.toLongLong();
} catch (...) {
    detail::logCaughtException("getCount");
    return 0;
}

} // namespace Kel
