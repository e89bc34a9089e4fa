// Point lookups: the first and last record of a series, the record at or
// before a time, and the clamping of a requested range to what the series
// holds.

#include "TSFileStorage.h"

#include "Calendar.h"
#include "Logging.h"
#include "MarkerStorage.h"
#include "RecordFile.h"

namespace Kel {

namespace {

// Opens the file that lookup() names; a file that cannot be opened is logged.
template <typename Lookup>
bool openForLookup(std::optional<detail::RecordFile>& file, TSFileStorage& storage, Lookup lookup,
                   const QString& failure, int line)
{
    const TSFileInfo info = detail::openLookedUp(file, storage, nullptr, lookup);
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
    rec = file->count() > 0 ? file->recordAt(0) : file->recordPastEnd();
    return true;
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
    rec = file->count() > 0 ? file->recordAt(file->count() - 1) : file->recordPastEnd();
    return true;
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
    const qint64 index = file->probe(ts);
    rec = index >= 0 ? file->recordAt(index) : file->recordPastEnd();
    return rec.timestamp == ts;
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
    const qint64 index = file->probe(t);
    rec = index >= 0 ? file->recordAt(index) : file->recordPastEnd();
    // The record before the probed one is taken only when it is not below t;
    // in a sorted file it is, so the probed record stays. This is how the
    // lookup has always answered: the last record at or before t when the
    // search ends below t, otherwise the first record at or after it.
    if (rec.timestamp > t && index >= 1) {
        Interpolate::DataRecord before = file->recordAt(index - 1);
        if (before.timestamp >= t)
            rec = std::move(before);
    }
    return true;
} catch (...) {
    detail::logCaughtException("findPrevDataRecord");
    return false;
}

bool TSFileStorage::adjustTimestamps(TSFileStorage* storage, long long& start, long long& end,
                                     bool& coversFirst, bool& coversLast)
{
    coversFirst = false;
    coversLast = false;
    Interpolate::DataRecord first;
    Interpolate::DataRecord last;
    if (!storage || !storage->getFirstDataRecord(first) || !storage->getLastDataRecord(last))
        return false;

    if (start == TS_NOW)
        start = detail::nowMs();
    else if (start == TS_FIRST_RECORD)
        start = first.timestamp;
    else if (start == TS_LAST_RECORD)
        start = last.timestamp;

    if (end == TS_NOW)
        end = detail::nowMs();
    else if (end == TS_FIRST_RECORD)
        end = first.timestamp;
    else if (end == TS_LAST_RECORD)
        end = last.timestamp;

    if (first.timestamp >= start) {
        start = first.timestamp;
        coversFirst = true;
    }
    if (end >= last.timestamp) {
        end = last.timestamp;
        coversLast = true;
    }
    return end >= start;
}

} // namespace Kel
