// Point lookups: the first and last record of a series, the record at or
// before a time, and the clamping of a requested range to what the series
// holds.

#include "TSFileStorage.h"
#include "TSFileQueries.h"

#include "Calendar.h"
#include "Logging.h"
#include "MarkerStorage.h"
#include "RecordFile.h"
#include "StoredRange.h"

namespace Kel {

namespace {

// Opens the file that lookup() names; a file that cannot be opened is logged.
// A lookup whose reads failed (logged by the file) answers false: a record
// made of what could not be read must not bound a read or a delete.
template <typename Lookup>
bool openForLookup(std::optional<detail::RecordFile>& file, TSFileStorage& storage, Lookup lookup,
                   const QString& failure, int line)
{
    const TSFileInfo info = detail::openLookedUp(file, storage.valueType, nullptr, lookup);
    if (!info.found())
        return false;
    if (file->isOpen())
        return true;
    detail::storageLog(detail::LOG_FAILURE, failure, line).arg(info.filePath()).endl();
    return false;
}

} // namespace

bool TSFileStorage::getFirstDataRecord(Interpolate::DataRecord& rec)
try
{
    std::optional<detail::RecordFile> file;
    if (!openForLookup(file, *this, [this] { return findFirstFile(); },
                       QStringLiteral("Could not open '%1' for read (getFirstDataRecord)"), 499))
        return false;
    // An empty file reads as a record read past the end: at the file's
    // base, with the value of zero bytes.
    rec = file->recordAtPosition(0);
    return !file->failed();
} catch (...) {
    detail::logCaughtException("getFirstDataRecord");
    return false;
}

bool TSFileStorage::getLastDataRecord(Interpolate::DataRecord& rec)
try
{
    std::optional<detail::RecordFile> file;
    if (!openForLookup(file, *this, [this] { return findLastFile(); },
                       QStringLiteral("Could not open '%1' for read (getLastDataRecord)"), 526))
        return false;
    rec = file->recordAtPosition(file->lastPosition());
    return !file->failed();
} catch (...) {
    detail::logCaughtException("getLastDataRecord");
    return false;
}

bool TSFileStorage::findDataRecord(long long ts, Interpolate::DataRecord& rec)
try
{
    std::optional<detail::RecordFile> file;
    if (!openForLookup(file, *this, [this, ts] { return findFile(ts); },
                       QStringLiteral("Could not open '%1' for read (findDataRecord)"), 605))
        return false;
    rec = file->recordAtPosition(file->probePosition(ts));
    return rec.timestamp == ts && !file->failed();
} catch (...) {
    detail::logCaughtException("findDataRecord");
    return false;
}

bool TSFileStorage::findPrevDataRecord(long long ts, Interpolate::DataRecord& rec)
try
{
    const long long t = ts - 1;
    const auto lookup = [this, t] {
        const TSFileInfo info = findFile(t);
        return info.found() ? info : findPrevFile(info);
    };
    std::optional<detail::RecordFile> file;
    if (!openForLookup(file, *this, lookup, QStringLiteral("Could not open '%1' for read (findPrevDataRecord)"), 559))
        return false;
    const qint64 probed = file->probePosition(t);
    rec = file->recordAtPosition(probed);
    // The record before the probed one is taken only when it is not below t;
    // in a sorted file it is, so the probed record stays. This is how the
    // lookup has always answered: the last record at or before t when the
    // search ends below t, otherwise the first record at or after it.
    const qint64 length = file->layout().recordLength;
    const qint64 after = file->positionAfterRecordAt(probed);
    if (rec.timestamp > t && after >= 2 * length) {
        Interpolate::DataRecord before = file->recordAtPosition(after - 2 * length);
        if (before.timestamp >= t)
            rec = std::move(before);
    }
    return !file->failed();
} catch (...) {
    detail::logCaughtException("findPrevDataRecord");
    return false;
}

namespace {

// Resolves the special bounds and clamps the range to the first and last
// record; true when a range remains.
bool clampRange(long long first, long long last, long long& start, long long& end, bool& coversFirst,
                bool& coversLast)
{
    const auto resolve = [first, last](long long& bound) {
        if (bound == TSFileStorage::TS_NOW)
            bound = detail::nowMs();
        else if (bound == TSFileStorage::TS_FIRST_RECORD)
            bound = first;
        else if (bound == TSFileStorage::TS_LAST_RECORD)
            bound = last;
    };
    resolve(start);
    resolve(end);

    if (first >= start) {
        start = first;
        coversFirst = true;
    }
    if (end >= last) {
        end = last;
        coversLast = true;
    }
    return end >= start;
}

// The last whole record of the last file.
bool lastStoredRecord(TSFileStorage& storage, Interpolate::DataRecord& rec)
{
    std::optional<detail::RecordFile> file;
    if (!openForLookup(file, storage, [&storage] { return storage.findLastFile(); },
                       QStringLiteral("Could not open '%1' for read (getLastDataRecord)"), 526))
        return false;
    rec = file->count() > 0 ? file->recordAt(file->count() - 1) : file->recordPastEnd();
    return !file->failed();
}

} // namespace

bool TSFileStorage::adjustTimestamps(TSFileStorage* storage, long long& start, long long& end,
                                     bool& coversFirst, bool& coversLast)
{
    coversFirst = false;
    coversLast = false;
    Interpolate::DataRecord first;
    Interpolate::DataRecord last;
    if (!storage || !storage->getFirstDataRecord(first) || !storage->getLastDataRecord(last))
        return false;
    return clampRange(first.timestamp, last.timestamp, start, end, coversFirst, coversLast);
}

namespace detail {

bool adjustToStoredRecords(TSFileStorage& storage, long long& start, long long& end, bool& coversFirst,
                           bool& coversLast)
try
{
    coversFirst = false;
    coversLast = false;
    Interpolate::DataRecord first;
    Interpolate::DataRecord last;
    if (!storage.getFirstDataRecord(first) || !lastStoredRecord(storage, last))
        return false;
    return clampRange(first.timestamp, last.timestamp, start, end, coversFirst, coversLast);
} catch (...) {
    logCaughtException("adjustToStoredRecords");
    return false;
}

} // namespace detail

bool lastRecordBefore(TSFileStorage& series, long long ts, Interpolate::DataRecord& rec)
try
{
    std::optional<detail::RecordFile> file;
    const auto lookup = [&series, ts] {
        const TSFileInfo at = series.findFile(ts - 1);
        return at.found() ? at : series.findPrevFile(at);
    };
    const QString failure = QStringLiteral("Could not open '%1' for read (findPrevDataRecord)");
    for (TSFileInfo info = detail::openLookedUp(file, series.valueType, nullptr, lookup); info.found();) {
        if (!file->isOpen()) {
            detail::storageLog(detail::LOG_FAILURE, failure, 559).arg(info.filePath()).endl();
            return false;
        }
        const qint64 index = file->lowerBound(ts) - 1;
        if (file->failed())
            return false;
        if (index >= 0) {
            Interpolate::DataRecord found = file->recordAt(index);
            if (file->failed())
                return false;
            rec = std::move(found);
            return true;
        }
        const TSFileInfo done = info;
        info = detail::openLookedUp(file, series.valueType, nullptr, [&] { return series.findPrevFile(done); });
    }
    return false;
} catch (...) {
    detail::logCaughtException("lastRecordBefore");
    return false;
}

} // namespace Kel
