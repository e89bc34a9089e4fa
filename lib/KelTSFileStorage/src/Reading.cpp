// Reading and counting ranges. Files are walked strictly in time order from
// the file that holds the start of the range; records are decoded in blocks
// and handed to the interpolation engine (or, for plain raw reads, appended
// to the caller's vector directly). Memory of a read is its output plus one
// block, never the series.

#include "TSFileStorage.h"

#include "Logging.h"
#include "MarkerStorage.h"
#include "RecordFile.h"

#include <algorithm>
#include <utility>
#include <unordered_set>

namespace Kel {

using Record = Interpolate::DataRecord;

namespace {

constexpr qint64 kBlockRecords = 8192;

void logOpenFailure(const TSFileInfo& info, const QString& failure, int line)
{
    detail::storageLog(detail::LOG_FAILURE, failure, line).arg(info.filePath()).endl();
}

// One walk over the files of a read range, feeding what it reads to the
// engine, to the output directly, or (for "P") joining the back-filled
// records of the series.
class RangeWalk {
public:
    RangeWalk(TSFileStorage& series, TSFileStorage& storage, Interpolate& engine,
              std::vector<Record>& out, bool isP, long long readStart, long long readEnd)
        : series(series), storage(storage), engine(engine), out(out), isP(isP),
          direct(!isP && engine.passesRawRecordsThrough()), readStart(readStart), readEnd(readEnd)
    {
        if (isP)
            for (const Record& r : out)
                joined.insert(r.timestamp);
    }

    void run()
    {
        std::optional<detail::RecordFile> file;
        TSFileInfo info = detail::openLookedUp(file, storage, [this] {
            const TSFileInfo at = storage.findFile(readStart);
            return at.found() ? at : storage.findNextFile(at);
        });
        while (info.found()) {
            if (file->isOpen())
                readFile(*file, file->base() >= readStart ? 0 : file->lowerBound(readStart));
            else
                logOpenFailure(info, QStringLiteral("Could not open '%1' for read (readDataRecords)"), 1011);
            if (stopped)
                return;
            const TSFileInfo done = info;
            info = detail::openLookedUp(file, storage, [&] { return storage.findNextFile(done); });
        }
    }

private:
    void readFile(detail::RecordFile& file, qint64 from)
    {
        // Raw records go straight from the file into the output.
        if (direct) {
            stopped = file.appendInRange(from, file.count() - from, readStart, readEnd, out);
            return;
        }
        for (qint64 at = from; at < file.count() && !stopped; at += kBlockRecords)
            feedBlock(file, at, std::min(kBlockRecords, file.count() - at));
    }

    void feedBlock(detail::RecordFile& file, qint64 at, qint64 n)
    {
        block.resize(size_t(n));
        const qint64 got = file.readRecords(at, n, block.data());
        for (qint64 i = 0; i < got && !stopped; ++i)
            take(std::move(block[size_t(i)]));
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

    TSFileStorage& series;
    TSFileStorage& storage;
    Interpolate& engine;
    std::vector<Record>& out;
    const bool isP;
    const bool direct;
    const long long readStart;
    const long long readEnd;
    bool stopped = false;
    std::vector<Record> block;
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
            // The whole period lies inside the range: the size tells.
            total += info.size() / layout.stride;
        } else {
            // A file at either end is opened; should the writer split it
            // meanwhile, the file of its first instant in range is counted.
            std::optional<detail::RecordFile> file;
            bool first = true;
            info = detail::openLookedUp(file, storage, [&] {
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
    Record first;
    Record last;
    if (!storage->getFirstDataRecord(first) || !storage->getLastDataRecord(last)) {
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
        // Only a record that really lies before the range is fed as the
        // previous one.
        Record previous;
        if (engine.needsPreviousDataRecords() &&
            detail::lastRecordBefore(*storage.get(), readStart, previous))
            engine.handleNextRawRecord(std::move(previous));
        RangeWalk(*this, *storage.get(), engine, out, marker == QLatin1String("P"), readStart, readEnd)
            .run();
    }
    engine.finalize();
    return true;
} catch (...) {
    detail::logCaughtException("readDataRecords");
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
    // The companions are read with the same request; the caller's count
    // stays that of the series' own read.
    if (pRecords) {
        int count = resultCount;
        readDataRecordsInt(param, params, start, end, *pRecords, labelAtIntervalStart, count,
                           QStringLiteral("P"), false);
        std::stable_sort(pRecords->begin(), pRecords->end(),
                         [](const Record& a, const Record& b) { return a.timestamp < b.timestamp; });
    }
    if (oMap) {
        int count = resultCount;
        std::vector<Record> replaced;
        readDataRecordsInt(param, params, start, end, replaced, labelAtIntervalStart, count,
                           QStringLiteral("O"), false);
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
        total += getCountInt(param, params, start, end, QStringLiteral("P"));
    if (withO)
        total += getCountInt(param, params, start, end, QStringLiteral("O"));
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
