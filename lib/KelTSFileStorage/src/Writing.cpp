// Writing batches of records. The batch is sorted and walked file by file;
// each file takes its share of the batch in one pass: appended at the end in
// place, or merged with the stored records and written once beside the old
// file and renamed over it. A stored record with the same timestamp is
// overwritten (its old value logged and, on request, kept in the "O"
// companion); records that arrive at or before the series' end are logged
// as back-filled in the "P" companion.

#include "TSFileStorage.h"

#include "DiskSteps.h"
#include "Logging.h"
#include "RecordFile.h"
#include "WritePlan.h"
#include "FileReplace.h"
#include "CompanionLogs.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace Kel {

using Record = Interpolate::DataRecord;

namespace {

// A binary search on disk costs about as much as reading this many records
// in one call.
constexpr qint64 kRecordsPerSearch = 8192;

// Batch order: by timestamp, then by value (NaN last), input order kept
// among equals.
bool batchLess(const Record& a, const Record& b)
{
    if (a.timestamp != b.timestamp)
        return a.timestamp < b.timestamp;
    const double x = a.value.toDouble();
    const double y = b.value.toDouble();
    return std::isnan(y) ? !std::isnan(x) : x < y;
}

// Sorts the batch unless it is in order already. Returns whether its
// timestamps are strictly increasing: then no record has a twin to merge.
bool sortBatch(std::vector<Record>& records)
{
    const auto notBefore = [](const Record& a, const Record& b) { return a.timestamp >= b.timestamp; };
    if (std::adjacent_find(records.begin(), records.end(), notBefore) == records.end())
        return true;
    if (!std::is_sorted(records.begin(), records.end(), batchLess))
        std::stable_sort(records.begin(), records.end(), batchLess);
    return false;
}

QString isoTime(long long ms)
{
    return QString::fromStdString(Poco::DateTimeFormatter::format(
        Poco::Timestamp(Poco::Timestamp::TimeVal(ms) * 1000), Poco::DateTimeFormat::ISO8601_FORMAT));
}

} // namespace

// Memory that the files of one batch use in turn, so that its pages are
// allocated and touched once: a file's stored records read whole (where it
// cannot be mapped), the records placed into a rewritten file, and the block
// buffer. All are page aligned: the kernel copies to and from a buffer that
// starts inside a page several times slower.
struct BatchBuffers {
    explicit BatchBuffers(const QString& seriesDir) : spare(seriesDir) {}

    detail::BlockBuffer stored;
    detail::BlockBuffer rewritten;
    detail::BlockBuffer blocks;
    detail::SpareFile spare;
};

// Applies the share of one batch that falls into one storage file.
class FileBatchWriter {
public:
    FileBatchWriter(TSFileStorage& storage, const TSFileInfo& info, bool appendOnly,
                    bool distinctTimes, std::vector<Record>* overwritten, BatchBuffers& buffers)
        : storage(storage),
          buffers(buffers),
          file(storage.valueType, info, &buffers.blocks),
          isNew(!info.found()),
          appendOnly(appendOnly),
          distinctTimes(distinctTimes),
          overwritten(overwritten),
          logOverwrites(!storage.baseDir.endsWith(QLatin1String("/V/"))),
          var(file.varPath()),
          encoder(file.layout(), file.base(), file.layout().variable ? &var : nullptr)
    {
    }

    // False when the file could not be opened or written.
    bool write(const Record* first, const Record* last)
    {
        if (!open())
            return false;
        // What the file holds decides, not what the lookup said: a lookup
        // that failed names an existing file as new, and records appended
        // there out of order would be lost to every search.
        const qint64 count = file.count();
        const bool append = appendOnly || count == 0 || file.timestampAt(count - 1) < first->timestamp;
        // A search on disk reads one timestamp a call; a batch with many
        // records for the file reads it whole once and searches in memory.
        if (!append && (last - first) * kRecordsPerSearch >= count)
            loadStored();
        const detail::WritePlan plan =
            detail::planWrite(first, last, count, [this](qint64 i) { return storedTimestamp(i); }, appendOnly);
        const bool written = !file.failed() && apply(plan, first, last);
        file.close();
        if (!written)
            detail::storageLog(detail::LOG_FAILURE, QStringLiteral("Could not write '%1' (writeDataRecords)"),
                               __LINE__)
                .arg(file.path())
                .endl();
        return written;
    }

    // Whether a stored variable value was replaced, leaving dead data in the
    // side file.
    bool replacedVariableValue() const { return varOverwritten; }

private:
    // One record of the file while the batch records of its timestamp are
    // applied to it: its encoded bytes (inside an output buffer) and where
    // its value comes from.
    struct Slot {
        explicit Slot(uchar* bytes, bool present = false) : bytes(bytes), present(present) {}
        uchar* bytes;
        bool present;                // a record is stored there
        const Record* written = nullptr;  // the batch record last written there
        QVariant storedValue;        // the value, once it was needed
        bool valueKnown = false;
    };

    bool open()
    {
        if (isNew)
            storage.checkDirectory(file.info().absoluteDir());
        if (file.openToChange(QIODevice::ReadWrite)) {
            if (isNew)
                detail::diskStepDone();  // an empty file now stands in the tree
            dropPartialRecord();
            return true;
        }
        if (isNew)
            detail::storageLog(detail::LOG_FAILURE,
                               QStringLiteral("Could not open '%1' for write (writeDataRecords)"), 1349)
                .arg(file.path())
                .endl();
        else
            detail::storageLog(detail::LOG_FAILURE,
                               QStringLiteral("Could not open '%1' for read/write (writeDataRecords)"), 1362)
                .arg(file.path())
                .endl();
        return false;
    }

    // An append that was cut short leaves part of a record at the end; it
    // is dropped before anything is added behind it.
    void dropPartialRecord()
    {
        const qint64 tail = file.tailBytes();
        if (tail == 0)
            return;
        if (file.dropTail())
            detail::storageLog(detail::LOG_WARNING,
                               QStringLiteral("Dropped %1 bytes of a partial record at the end of '%2'"),
                               __LINE__)
                .arg(tail)
                .arg(file.path())
                .endl();
    }

    // Applies batch records of one timestamp in batch order: each one that
    // differs from the value stored so far is written over it.
    void applyRun(const Record* first, const Record* last, Slot& slot)
    {
        for (const Record* r = first; r != last; ++r) {
            if (slot.present) {
                const QVariant& stored = valueOf(slot);
                if (stored == r->value)
                    continue;
                noteOverwrite(r->timestamp, stored, r->value);
            }
            encoder.encode(slot.bytes, *r);
            slot.present = true;
            slot.written = r;
            slot.valueKnown = false;
        }
    }

    // The stored value as a reader gets it back: converted to the series'
    // type (a variable value comes back as it was written).
    const QVariant& valueOf(Slot& slot)
    {
        if (!slot.valueKnown) {
            const detail::RecordLayout& l = file.layout();
            if (!slot.written)
                slot.storedValue = file.valueOf(slot.bytes + l.offsetWidth);
            else if (l.variable)
                slot.storedValue = slot.written->value;
            else
                slot.storedValue = detail::decodeValue(slot.bytes + l.offsetWidth, l.type);
            slot.valueKnown = true;
        }
        return slot.storedValue;
    }

    void noteOverwrite(long long ts, const QVariant& oldValue, const QVariant& newValue)
    {
        if (logOverwrites) {
            try {
                detail::storageLog(detail::LOG_WARNING,
                                   QStringLiteral("Value on '%1' overwritten on time stamp %2 old:%3, new:%4"),
                                   1414)
                    .arg(storage.baseDir)
                    .arg(isoTime(ts))
                    .arg(oldValue.toString())
                    .arg(newValue.toString())
                    .endl();
            } catch (const std::exception& e) {
                detail::storageLog(detail::LOG_FAILURE, QStringLiteral("Exception on log overwritten: '%1'"), 1425)
                    .arg(QString::fromLocal8Bit(e.what()))
                    .endl();
            }
        }
        if (overwritten)
            overwritten->push_back({ts, oldValue});
        if (file.layout().variable)
            varOverwritten = true;
    }

    bool apply(const detail::WritePlan& plan, const Record* first, const Record* last)
    {
        switch (plan.kind) {
        case detail::WritePlan::Kind::Append:
            return appendAll(first, last);
        case detail::WritePlan::Kind::Patch:
            buffers.spare.claim();
            return patchInPlace(plan.places);
        case detail::WritePlan::Kind::Rewrite:
            buffers.spare.claim();
            return rewrite(plan.places);
        }
        return false;
    }

    bool appendAll(const Record* first, const Record* last)
    {
        if (!file.layout().variable && (appendOnly || distinctTimes))
            return file.appendRecords(first, last - first);
        const int stride = file.layout().stride;
        QByteArray out((last - first) * stride, Qt::Uninitialized);
        qsizetype used = 0;
        for (const Record* run = first; run != last;) {
            const Record* end = detail::runEnd(run, last, appendOnly);
            Slot slot(reinterpret_cast<uchar*>(out.data() + used));
            applyRun(run, end, slot);
            used += stride;
            run = end;
        }
        return finishVar() && file.writeAt(file.size(), out.constData(), used);
    }

    // The stored records in memory: the file mapped, or where it cannot be,
    // read whole.
    bool loadStored()
    {
        loaded = file.mapRecords();
        if (!loaded) {
            uchar* copy = buffers.stored.reserve(file.count() * file.layout().stride);
            if (!file.readRaw(0, file.count(), reinterpret_cast<char*>(copy)))
                return false;
            loaded = copy;
        }
        isLoaded = true;
        return true;
    }

    const uchar* loadedRecord(qint64 index) const { return loaded + index * file.layout().stride; }

    long long storedTimestamp(qint64 index)
    {
        if (!isLoaded)
            return file.timestampAt(index);
        return detail::decodeTimestamp(loadedRecord(index), file.layout().offsetWidth, file.base());
    }

    // Copies the bytes of stored records [from, from + n) to out.
    bool readStored(qint64 from, qint64 n, char* out)
    {
        if (!isLoaded)
            return file.readRaw(from, n, out);
        std::memcpy(out, loadedRecord(from), size_t(n * file.layout().stride));
        return true;
    }

    bool patchInPlace(const std::vector<detail::Placement>& places)
    {
        if (file.failed())
            return false;  // the places were found by reads that failed
        const int stride = file.layout().stride;
        QByteArray patches;              // changed stored records, then new ones at the end
        std::vector<qint64> patchIndex;  // where each changed stored record goes
        QByteArray tail;
        uchar record[16];
        for (const detail::Placement& p : places) {
            if (p.stored) {
                if (!readStored(p.index, 1, reinterpret_cast<char*>(record)))
                    return false;
                Slot slot(record, true);
                applyRun(p.run, p.runEnd, slot);
                if (slot.written) {
                    patches.append(reinterpret_cast<const char*>(record), stride);
                    patchIndex.push_back(p.index);
                }
            } else {
                tail.resize(tail.size() + stride);
                Slot slot(reinterpret_cast<uchar*>(tail.data() + tail.size() - stride));
                applyRun(p.run, p.runEnd, slot);
            }
        }
        bool ok = !file.failed() && finishVar();
        for (size_t i = 0; i < patchIndex.size() && ok; ++i)
            ok = file.writeAt(patchIndex[i] * stride, patches.constData() + qsizetype(i) * stride, stride) && ok;
        return ok && file.writeAt(file.count() * stride, tail.constData(), tail.size());
    }

    bool rewrite(const std::vector<detail::Placement>& places)
    {
        if (file.failed())
            return false;  // the places were found by reads that failed
        const int stride = file.layout().stride;
        const qint64 count = file.count();
        if (!isLoaded && !loadStored())
            return false;
        // The new file is written from the stored records where they lie and
        // the placed records, built in a buffer of their own, between them.
        uchar* placed = buffers.rewritten.reserve(qint64(places.size()) * stride);
        std::vector<detail::Piece> pieces;
        const auto add = [&pieces](const uchar* data, qint64 size) {
            if (!pieces.empty() && static_cast<const uchar*>(pieces.back().data) + pieces.back().size == data)
                pieces.back().size += size;
            else if (size > 0)
                pieces.push_back({data, size});
        };
        qint64 copied = 0;
        for (const detail::Placement& p : places) {
            add(loadedRecord(copied), (p.index - copied) * stride);
            copied = p.index;
            Slot slot(placed, p.stored);
            if (p.stored)
                std::memcpy(slot.bytes, loadedRecord(copied++), size_t(stride));
            applyRun(p.run, p.runEnd, slot);
            add(placed, stride);
            placed += stride;
        }
        add(loadedRecord(copied), (count - copied) * stride);
        return !file.failed() && finishVar() && detail::replaceFile(file.path(), pieces, &buffers.spare);
    }

    // Values reach the side file before the records that refer to them.
    bool finishVar() { return !file.layout().variable || var.flush(); }

    TSFileStorage& storage;
    BatchBuffers& buffers;
    detail::RecordFile file;
    bool isNew;
    bool appendOnly;
    bool distinctTimes;  // no two batch records share a timestamp
    std::vector<Record>* overwritten;
    bool logOverwrites;
    bool varOverwritten = false;
    detail::VarFileWriter var;
    detail::RecordEncoder encoder;
    const uchar* loaded = nullptr;  // the stored records, once in memory
    bool isLoaded = false;
};

bool TSFileStorage::writeDataRecords(std::vector<Interpolate::DataRecord> records,
                                     bool collectBackfill, bool collectOverwritten)
{
    return writeDataRecordsInt(std::move(records), collectBackfill, collectOverwritten, false);
}

bool TSFileStorage::writeDataRecordsInt(std::vector<Interpolate::DataRecord> records,
                                        bool collectBackfill, bool collectOverwritten,
                                        bool appendOnly)
try
{
    if (records.empty())
        return true;
    long long backfillLimit = 0;
    if (collectBackfill) {
        Record last;
        if (getLastDataRecord(last))
            backfillLimit = last.timestamp;
    }
    const bool distinctTimes = sortBatch(records);

    std::vector<long long> backfilled;
    std::vector<Record> overwritten;
    BatchBuffers buffers(baseDir);
    bool allPlaced = true;
    const Record* const end = records.data() + records.size();
    for (const Record* first = records.data(); first != end;) {
        const TSFileInfo info = findFile(first->timestamp);
        if (info.filePath().isEmpty()) {
            detail::storageLog(detail::LOG_FAILURE,
                               QStringLiteral("Time stamp %1 lies outside the years 0 to 9999, record not written to '%2'"),
                               __LINE__)
                .arg(first->timestamp)
                .arg(baseDir)
                .endl();
            allPlaced = false;
            ++first;
            continue;
        }
        // The rest of the file's period goes to the same file without asking
        // the tree again.
        const long long periodEnd = info.getPeriodEndTsMs();
        const Record* last = std::partition_point(first + 1, end, [periodEnd](const Record& r) {
            return r.timestamp < periodEnd;
        });

        FileBatchWriter writer(*this, info, appendOnly, distinctTimes,
                               collectOverwritten ? &overwritten : nullptr, buffers);
        if (!writer.write(first, last))
            return false;
        QFile file(info.filePath());
        if (!checkMaxFileSize(&file, info) && writer.replacedVariableValue())
            reorgVarFile(&file, info);

        if (collectBackfill)
            for (const Record* r = first; r != last; ++r)
                if (r->timestamp <= backfillLimit)
                    backfilled.push_back(r->timestamp);
        first = last;
    }

    if (!backfilled.empty())
        detail::logBackfill(*this, backfilled);
    if (!overwritten.empty())
        detail::logOverwritten(*this, overwritten);
    return allPlaced;
} catch (...) {
    detail::logCaughtException("writeDataRecords");
    return false;
}

} // namespace Kel
