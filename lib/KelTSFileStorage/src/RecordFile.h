// RecordFile: one storage file opened for bulk work. Records are read and
// written in whole-record blocks through a page-aligned buffer, positions are
// counted in records, and a partial record at the end of the file (left by an
// interrupted append) is never read.
#pragma once

#include "RecordCodec.h"
#include "SideFile.h"
#include "TSFileInfo.h"
#include "StorageNames.h"

#include <QByteArray>
#include <QFile>

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace Kel::detail {

// A page-aligned buffer for blocks of whole records. A walk over many files
// lends one to each file, so that its pages are allocated and touched once.
class BlockBuffer {
public:
    // At least `bytes`, keeping the buffer when it is large enough.
    uchar* reserve(qint64 bytes);
    qint64 capacity() const { return size; }

private:
    struct FreeDeleter {
        void operator()(void* p) const;
    };
    std::unique_ptr<uchar, FreeDeleter> data;
    qint64 size = 0;
};

class RecordFile {
public:
    // Blocks go through the buffer given, or through one of the file's own.
    RecordFile(QMetaType::Type valueType, TSFileInfo info, BlockBuffer* blocks = nullptr);
    ~RecordFile();
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;

    // Opens with the disk's retries; the caller logs a failure.
    // A replacement of the file and its side file that stopped after its
    // first rename is completed first.
    bool open(QIODevice::OpenMode mode);
    // The same for the series' writer, which is about to change the file: a
    // replacement that stopped before its first rename is thrown away too.
    // A reader must not: for it, that may be a replacement under way.
    bool openToChange(QIODevice::OpenMode mode);
    void close();
    bool isOpen() const { return file.isOpen(); }

    const TSFileInfo& info() const { return fileInfo; }
    const RecordLayout& layout() const { return recordLayout; }
    long long base() const { return baseTs; }
    QString path() const { return fileInfo.filePath(); }
    QString varPath() const { return names::sideFile(fileInfo.filePath()); }

    qint64 size() const { return fileSize; }
    // Whether a read or write of the file or of its side file failed since
    // it was opened (logged): what was read since may be wrong, and a
    // writer must not act on it.
    bool failed() const { return ioFailed || (var && var->refusedBySystem()); }
    // Whole records in the file.
    qint64 count() const { return fileSize / recordLayout.stride; }
    // Bytes of a partial record at the end.
    qint64 tailBytes() const { return fileSize % recordLayout.stride; }

    long long timestampAt(qint64 index);
    Interpolate::DataRecord recordAt(qint64 index);
    // What a read past the end of the records gives: the file's base and
    // the value of zero bytes (0, false, or a side file's first value).
    Interpolate::DataRecord recordPastEnd();

    // Lookups move through a file by byte positions in steps of the record
    // length (offset width plus the type's data length), as the format has
    // always computed them. For every type but Float these are the starts
    // of the records. A Float record takes 4 bytes more than that length
    // says, so there the positions land inside records, and what is read
    // there is what the format gives: a timestamp made of other bytes.
    //
    // The byte position the storage's binary search probes last for a
    // timestamp: the exact match when there is one, else a neighbour of its
    // place; 0 for an empty file.
    qint64 probePosition(long long ts);
    // Where the last record starts, counted back one record length from the
    // end of the whole records; 0 for an empty file.
    qint64 lastPosition() const;
    // The record read at a byte position; a field that lies past the end of
    // the whole records reads as zero bytes.
    Interpolate::DataRecord recordAtPosition(qint64 position);
    // Where a read of one record from position leaves the file.
    qint64 positionAfterRecordAt(qint64 position) const;
    // Bytes of the whole records.
    qint64 wholeBytes() const { return count() * recordLayout.stride; }
    // First index whose timestamp is not below ts (count() when none).
    qint64 lowerBound(long long ts);
    // First index whose timestamp is above ts (count() when none).
    qint64 upperBound(long long ts);

    // Decodes records [from, from + n) into out; returns how many were read.
    qint64 readRecords(qint64 from, qint64 n, Interpolate::DataRecord* out);
    // Appends the records of [from, from + n) whose timestamps lie in
    // [lo, hi] to out; true when a record above hi ended the walk.
    // The same into columns, for a fixed-length value type.
    bool appendColumnsInRange(qint64 from, qint64 n, long long lo, long long hi, RawColumns& out);
    bool appendInRange(qint64 from, qint64 n, long long lo, long long hi,
                       std::vector<Interpolate::DataRecord>& out);
    // Hands the bytes of records [from, from + n) to visit(p, count), a block
    // of whole records at a time, until visit returns false.
    void visitBlocks(qint64 from, qint64 n, const std::function<bool(const uchar*, qint64)>& visit);
    // Copies the bytes of records [from, from + n) to out.
    bool readRaw(qint64 from, qint64 n, char* out);
    // The file's whole records mapped into memory until close(): a private
    // mapping, so that nothing written through it reaches the file; null
    // when the file is empty or cannot be mapped.
    const uchar* mapRecords();
    // The value of a record's value field.
    QVariant valueOf(const uchar* field);

    bool writeAt(qint64 byteOffset, const char* data, qint64 n);
    // Encodes records of a fixed-length type a block at a time and writes
    // each block at the end of the file: an append of any size takes one
    // block of memory.
    bool appendRecords(const Interpolate::DataRecord* records, qint64 n);
    // Cuts a partial record off the end of the file.
    bool dropTail();

private:
    // Records read in one block by a bound's search.
    static constexpr qint64 kSearchBlockRecords = 256;
    qint64 boundIndex(long long ts, bool after);
    // The first and last timestamps, read once for each size of the file.
    std::pair<long long, long long> firstAndLastTimestamps();

    bool openAsIs(QIODevice::OpenMode mode);
    bool learnSize();
    void noteFailure(const char* call);
    bool readBytes(qint64 offset, char* out, qint64 n);
    // The block buffer, grown on use as large as that use needs, up to a
    // block; sets bufferRecords to the records it holds.
    uchar* blockBuffer(qint64 records);
    // Reads [from, from + n) a buffer at a time and hands each to chunk(p,
    // done, size); stops early (returning -1) when chunk returns false.
    template <typename Chunk>
    qint64 forEachChunk(qint64 from, qint64 n, Chunk chunk);

    TSFileInfo fileInfo;
    RecordLayout recordLayout;
    long long baseTs;
    QFile file;
    qint64 fileSize = 0;
    std::unique_ptr<VarFileReader> var;
    BlockBuffer ownBlocks;
    BlockBuffer* blocks;
    qint64 bufferRecords = 0;
    bool ioFailed = false;
    std::pair<long long, long long> edges;
    qint64 edgesKnownAt = -1;
};

// Opens for reading the storage file that lookup() names. The writer may
// split that file between the lookup and the open, leaving a directory that
// holds its records at its path: the lookup is then made again, at most once
// per level of the tree. Returns the info of the file it tried last; file
// holds it, open when it could be opened. When there is none, both are empty:
// an info whose stat failed once may find the file when asked again, and
// must not send the caller to a file that was never set up.
template <typename Lookup>
TSFileInfo openLookedUp(std::optional<RecordFile>& file, QMetaType::Type valueType, BlockBuffer* blocks,
                        Lookup lookup)
{
    TSFileInfo info;
    for (int level = TSFileInfo::DEPTH_YEAR; level <= TSFileInfo::DEPTH_MINUTE; ++level) {
        info = lookup();
        if (!info.found()) {
            file.reset();
            return TSFileInfo();
        }
        file.emplace(valueType, info, blocks);
        if (file->open(QIODevice::ReadOnly) || !QFileInfo(info.filePath()).isDir())
            break;
    }
    return info;
}

} // namespace Kel::detail
