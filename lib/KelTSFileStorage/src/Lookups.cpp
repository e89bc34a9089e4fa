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

bool openForLookup(detail::RecordFile& file, const QString& failure, int line)
{
    if (file.open(QIODevice::ReadOnly))
        return true;
    detail::storageLog(detail::LOG_FAILURE, failure, line).arg(file.path()).endl();
    return false;
}

} // namespace

bool TSFileStorage::getFirstDataRecord(Interpolate::DataRecord& rec)
try
{
    const TSFileInfo info = findFirstFile();
    if (!info.found())
        return false;
    detail::RecordFile file(*this, info);
    if (!openForLookup(file, QStringLiteral("Could not open '%1' for read (getFirstDataRecord)"), 499))
        return false;
    // An empty file reads as a record at the file's base, as a read past
    // the end always has.
    rec = file.count() > 0 ? file.recordAt(0) : Interpolate::DataRecord{file.base(), QVariant()};
    return true;
} catch (...) {
    detail::logCaughtException("getFirstDataRecord");
    return false;
}

bool TSFileStorage::getLastDataRecord(Interpolate::DataRecord& rec)
try
{
    const TSFileInfo info = findLastFile();
    if (!info.found())
        return false;
    detail::RecordFile file(*this, info);
    if (!openForLookup(file, QStringLiteral("Could not open '%1' for read (getLastDataRecord)"), 526))
        return false;
    rec = file.count() > 0 ? file.recordAt(file.count() - 1)
                           : Interpolate::DataRecord{file.base(), QVariant()};
    return true;
} catch (...) {
    detail::logCaughtException("getLastDataRecord");
    return false;
}

bool TSFileStorage::findDataRecord(long long ts, Interpolate::DataRecord& rec)
try
{
    const TSFileInfo info = findFile(ts);
    if (!info.found())
        return false;
    detail::RecordFile file(*this, info);
    if (!openForLookup(file, QStringLiteral("Could not open '%1' for read (findDataRecord)"), 605))
        return false;
    const qint64 index = file.probe(ts);
    rec = index >= 0 ? file.recordAt(index) : Interpolate::DataRecord{file.base(), QVariant()};
    return rec.timestamp == ts;
} catch (...) {
    detail::logCaughtException("findDataRecord");
    return false;
}

bool TSFileStorage::findPrevDataRecord(long long ts, Interpolate::DataRecord& rec)
try
{
    const long long t = ts - 1;
    TSFileInfo info = findFile(t);
    if (!info.found()) {
        info = findPrevFile(info);
        if (!info.found())
            return false;
    }
    detail::RecordFile file(*this, info);
    if (!openForLookup(file, QStringLiteral("Could not open '%1' for read (findPrevDataRecord)"), 559))
        return false;
    const qint64 index = file.probe(t);
    rec = index >= 0 ? file.recordAt(index) : Interpolate::DataRecord{file.base(), QVariant()};
    // The record before the probed one is taken only when it is not below t;
    // in a sorted file it is, so the probed record stays. This is how the
    // lookup has always answered: the last record at or before t when the
    // search ends below t, otherwise the first record at or after it.
    if (rec.timestamp > t && index >= 1) {
        Interpolate::DataRecord before = file.recordAt(index - 1);
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

namespace Kel::detail {

bool lastRecordBefore(TSFileStorage& storage, long long ts, Interpolate::DataRecord& rec)
{
    TSFileInfo info = storage.findFile(ts - 1);
    if (!info.found())
        info = storage.findPrevFile(info);
    for (; info.found(); info = storage.findPrevFile(info)) {
        RecordFile file(storage, info);
        if (!openForLookup(file, QStringLiteral("Could not open '%1' for read (findPrevDataRecord)"), 559))
            continue;
        const qint64 index = file.lowerBound(ts) - 1;
        if (index >= 0) {
            rec = file.recordAt(index);
            return true;
        }
    }
    return false;
}

} // namespace Kel::detail
