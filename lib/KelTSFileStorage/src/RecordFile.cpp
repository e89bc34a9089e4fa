// Bulk access to one storage file: whole-record reads and writes through a
// page-aligned buffer, and the searches by timestamp.

#include "RecordFile.h"
#include "FileReplace.h"

#include "DiskSteps.h"
#include "Logging.h"
#include "Disk.h"
#include "StorageNames.h"

#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace Kel::detail {

namespace {

constexpr qint64 kBufferBytes = 1 << 20;

} // namespace

void BlockBuffer::FreeDeleter::operator()(void* p) const
{
    std::free(p);
}

uchar* BlockBuffer::reserve(qint64 bytes)
{
    if (bytes > size) {
        size = (bytes + 4095) / 4096 * 4096;
        data.reset(static_cast<uchar*>(std::aligned_alloc(4096, size_t(size))));
    }
    return data.get();
}

RecordFile::RecordFile(QMetaType::Type valueType, TSFileInfo info, BlockBuffer* blocks)
    : fileInfo(std::move(info)),
      recordLayout(valueType, fileInfo.getDirDepth()),
      baseTs(fileInfo.getBaseTsMs()),
      file(fileInfo.filePath()),
      blocks(blocks ? blocks : &ownBlocks)
{
}

RecordFile::~RecordFile() = default;

bool RecordFile::open(QIODevice::OpenMode mode)
{
    if (recordLayout.variable)
        finishRewrite(fileInfo.filePath());
    if (file.open(mode))
        return learnSize();
    // A directory at the path is a split that the writer swapped in since
    // the lookup; waiting will not make it a file again. Anything else may
    // be a file that another process holds for a moment.
    if (QFileInfo(fileInfo.filePath()).isDir())
        return false;
    return openAsIs(mode);
}

bool RecordFile::openToChange(QIODevice::OpenMode mode)
{
    // A writer must not add to a pair whose replacement it cannot settle.
    if (recordLayout.variable && !recoverRewrite(fileInfo.filePath())) {
        storageLog(LOG_FAILURE, QStringLiteral("Could not settle the replacement of '%1'"), __LINE__)
            .arg(fileInfo.filePath())
            .endl();
        return false;
    }
    return openAsIs(mode);
}

bool RecordFile::openAsIs(QIODevice::OpenMode mode)
{
    return openRetrying(file, mode) && learnSize();
}

// The size decides which records there are and where new ones go: one that
// the system cannot tell must not read as an empty file, over whose records
// a writer would append.
bool RecordFile::learnSize()
{
    struct stat st;
    if (::fstat(file.handle(), &st) != 0) {
        noteFailure("fstat");
        file.close();
        return false;
    }
    fileSize = st.st_size;
    return true;
}

void RecordFile::noteFailure(const char* call)
{
    const int error = errno;
    if (!ioFailed)
        storageLog(LOG_FAILURE, QStringLiteral("Could not read or write '%1' (%2: %3)"), __LINE__)
            .arg(path())
            .arg(QString::fromLatin1(call))
            .arg(QString::fromLocal8Bit(error ? std::strerror(error) : "end of file"))
            .endl();
    ioFailed = true;
}

void RecordFile::close()
{
    var.reset();
    file.close();
}

bool RecordFile::readBytes(qint64 offset, char* out, qint64 n)
{
    const int fd = file.handle();
    while (n > 0) {
        errno = 0;
        const ssize_t got = ::pread(fd, out, size_t(n), offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            noteFailure("pread");
            return false;
        }
        out += got;
        offset += got;
        n -= got;
    }
    return true;
}

bool RecordFile::writeAt(qint64 byteOffset, const char* data, qint64 n)
{
    const int fd = file.handle();
    const qint64 end = byteOffset + n;
    while (n > 0) {
        errno = 0;
        const ssize_t put = ::pwrite(fd, data, size_t(n), byteOffset);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0) {
            noteFailure("pwrite");
            return false;
        }
        data += put;
        byteOffset += put;
        n -= put;
        diskStepDone();
    }
    fileSize = std::max(fileSize, end);
    return true;
}

bool RecordFile::dropTail()
{
    const qint64 whole = count() * recordLayout.stride;
    if (whole == fileSize)
        return true;
    if (!file.resize(whole))
        return false;
    diskStepDone();
    fileSize = whole;
    return true;
}

long long RecordFile::timestampAt(qint64 index)
{
    uchar p[8] = {};
    readBytes(index * recordLayout.stride, reinterpret_cast<char*>(p), recordLayout.offsetWidth);
    return decodeTimestamp(p, recordLayout.offsetWidth, baseTs);
}

// One record through a buffer of its own size: the block buffer of bulk
// reads is not worth taking for it.
Interpolate::DataRecord RecordFile::recordAt(qint64 index)
{
    if (index < 0 || index >= count())
        return Interpolate::DataRecord();
    return recordAtPosition(index * recordLayout.stride);
}

Interpolate::DataRecord RecordFile::recordPastEnd()
{
    const uchar zeros[8] = {};
    return {baseTs, valueOf(zeros)};
}

// The probes go to the disk one by one until what is left of the range fits
// one search block; that is read at once, and the last probes are answered
// from it. They see the same bytes in the same places: the answer is the
// probes' own, whatever the file holds.
qint64 RecordFile::probePosition(long long ts)
{
    const qint64 length = recordLayout.recordLength;
    const int width = recordLayout.offsetWidth;
    uchar block[kSearchBlockRecords * 16];
    qint64 blockFrom = -1;
    qint64 blockTo = -1;
    bool blockTried = false;
    const auto readRest = [&](qint64 lo, qint64 hi) {
        if (blockTried || hi - lo > kSearchBlockRecords)
            return;
        blockTried = true;
        if (readBytes(lo * length, reinterpret_cast<char*>(block), (hi - lo) * length)) {
            blockFrom = lo;
            blockTo = hi;
        }
    };
    const auto timestampAtPosition = [&](qint64 i) {
        if (i >= blockFrom && i < blockTo)
            return decodeTimestamp(block + (i - blockFrom) * length, width, baseTs);
        uchar p[8] = {};
        readBytes(i * length, reinterpret_cast<char*>(p), width);
        return decodeTimestamp(p, width, baseTs);
    };
    return std::max<qint64>(0, lastProbedIndex(wholeBytes() / length, timestampAtPosition, ts, readRest)) * length;
}

qint64 RecordFile::lastPosition() const
{
    return std::max<qint64>(0, wholeBytes() - recordLayout.recordLength);
}

qint64 RecordFile::positionAfterRecordAt(qint64 position) const
{
    return position + std::clamp<qint64>(wholeBytes() - position, 0, recordLayout.stride);
}

Interpolate::DataRecord RecordFile::recordAtPosition(qint64 position)
{
    uchar p[16] = {};
    const qint64 available = positionAfterRecordAt(position) - position;
    if (available > 0 && !readBytes(position, reinterpret_cast<char*>(p), available))
        return Interpolate::DataRecord();
    // A field cut off by the end reads as zero, as the stream gives it.
    if (available < recordLayout.offsetWidth)
        std::memset(p, 0, sizeof p);
    else if (available < recordLayout.stride)
        std::memset(p + recordLayout.offsetWidth, 0, sizeof p - size_t(recordLayout.offsetWidth));
    return {decodeTimestamp(p, recordLayout.offsetWidth, baseTs), valueOf(p + recordLayout.offsetWidth)};
}

qint64 RecordFile::lowerBound(long long ts)
{
    return boundIndex(ts, false);
}

qint64 RecordFile::upperBound(long long ts)
{
    return boundIndex(ts, true);
}

// The records of a series are mostly spread evenly over time: where ts lies
// between the first and the last record tells where to look, and one block
// read there mostly holds the bound. Where it does not, the block narrows
// the range that the search on disk goes on in, a record a probe.
qint64 RecordFile::boundIndex(long long ts, bool after)
{
    const auto before = [ts, after](long long at) { return after ? at <= ts : at < ts; };
    const auto timestampAtIndex = [this](qint64 i) { return timestampAt(i); };
    qint64 lo = 0;
    qint64 hi = count();
    if (hi <= kSearchBlockRecords)
        return firstIndexNotBefore(lo, hi, timestampAtIndex, before);

    const auto [first, last] = firstAndLastTimestamps();
    if (!before(first))
        return 0;
    if (before(last))
        return hi;
    lo = 1;
    hi -= 1;
    const double share = double(ts - first) / double(last - first);
    const qint64 guess = lo + qint64(std::clamp(share, 0.0, 1.0) * double(hi - lo));
    const qint64 from = std::clamp(guess - kSearchBlockRecords / 2, lo, std::max(lo, hi - kSearchBlockRecords));
    const qint64 n = std::min(kSearchBlockRecords, hi - from);
    uchar block[kSearchBlockRecords * 16];
    const int stride = recordLayout.stride;
    if (!readBytes(from * stride, reinterpret_cast<char*>(block), n * stride))
        return firstIndexNotBefore(lo, hi, timestampAtIndex, before);
    const auto timestampInBlock = [&](qint64 i) {
        return decodeTimestamp(block + (i - from) * stride, recordLayout.offsetWidth, baseTs);
    };
    if (!before(timestampInBlock(from)))
        hi = from;
    else if (before(timestampInBlock(from + n - 1)))
        lo = from + n;
    else
        return firstIndexNotBefore(from, from + n, timestampInBlock, before);
    return firstIndexNotBefore(lo, hi, timestampAtIndex, before);
}

std::pair<long long, long long> RecordFile::firstAndLastTimestamps()
{
    if (edgesKnownAt != fileSize) {
        edges = {timestampAt(0), timestampAt(count() - 1)};
        edgesKnownAt = fileSize;
    }
    return edges;
}

bool RecordFile::readRaw(qint64 from, qint64 n, char* out)
{
    return readBytes(from * recordLayout.stride, out, n * recordLayout.stride);
}

const uchar* RecordFile::mapRecords()
{
    const qint64 bytes = count() * recordLayout.stride;
    return bytes > 0 ? file.map(0, bytes, QFileDevice::MapPrivateOption) : nullptr;
}

QVariant RecordFile::valueOf(const uchar* field)
{
    if (!recordLayout.variable)
        return decodeValue(field, recordLayout.type);
    if (!var)
        var = std::make_unique<VarFileReader>(varPath());
    return var->valueAt(decodeVarPosition(field));
}

uchar* RecordFile::blockBuffer(qint64 records)
{
    const qint64 stride = recordLayout.stride;
    const qint64 wanted = std::max<qint64>(1, std::min(kBufferBytes / stride, records));
    uchar* p = blocks->reserve(wanted * stride);
    bufferRecords = std::min(kBufferBytes, blocks->capacity()) / stride;
    return p;
}

bool RecordFile::appendRecords(const Interpolate::DataRecord* records, qint64 n)
{
    uchar* block = blockBuffer(n);
    for (qint64 done = 0; done < n;) {
        const qint64 size = std::min(bufferRecords, n - done);
        encodeFixed(records + done, size, recordLayout, baseTs, block);
        if (!writeAt(fileSize, reinterpret_cast<const char*>(block), size * recordLayout.stride))
            return false;
        done += size;
    }
    return true;
}

template <typename Chunk>
qint64 RecordFile::forEachChunk(qint64 from, qint64 n, Chunk chunk)
{
    const qint64 stride = recordLayout.stride;
    n = std::max<qint64>(0, std::min(n, count() - from));
    uchar* block = n > 0 ? blockBuffer(n) : nullptr;
    qint64 done = 0;
    while (done < n) {
        const qint64 size = std::min(bufferRecords, n - done);
        if (!readBytes((from + done) * stride, reinterpret_cast<char*>(block), size * stride))
            break;
        if (!chunk(block, done, size))
            return -1;
        done += size;
    }
    return done;
}

qint64 RecordFile::readRecords(qint64 from, qint64 n, Interpolate::DataRecord* out)
{
    return forEachChunk(from, n, [&](const uchar* p, qint64 done, qint64 size) {
        if (!recordLayout.variable) {
            decodeFixed(p, size, recordLayout, baseTs, out + done);
            return true;
        }
        for (qint64 i = 0; i < size; ++i, p += recordLayout.stride) {
            out[done + i].timestamp = decodeTimestamp(p, recordLayout.offsetWidth, baseTs);
            out[done + i].value = valueOf(p + recordLayout.offsetWidth);
        }
        return true;
    });
}

void RecordFile::visitBlocks(qint64 from, qint64 n, const std::function<bool(const uchar*, qint64)>& visit)
{
    forEachChunk(from, n, [&](const uchar* p, qint64, qint64 size) { return visit(p, size); });
}

bool RecordFile::appendInRange(qint64 from, qint64 n, long long lo, long long hi,
                               std::vector<Interpolate::DataRecord>& out)
{
    const qint64 read = forEachChunk(from, n, [&](const uchar* p, qint64, qint64 size) {
        if (!recordLayout.variable)
            return !appendFixed(p, size, recordLayout, baseTs, lo, hi, out);
        for (qint64 i = 0; i < size; ++i, p += recordLayout.stride) {
            const long long ts = decodeTimestamp(p, recordLayout.offsetWidth, baseTs);
            if (ts > hi)
                return false;
            if (ts >= lo)
                out.push_back({ts, valueOf(p + recordLayout.offsetWidth)});
        }
        return true;
    });
    return read < 0;
}

bool RecordFile::appendColumnsInRange(qint64 from, qint64 n, long long lo, long long hi, RawColumns& out)
{
    const qint64 read = forEachChunk(from, n, [&](const uchar* p, qint64, qint64 size) {
        return !appendFixedColumns(p, size, recordLayout, baseTs, lo, hi, out);
    });
    return read < 0;
}

} // namespace Kel::detail
