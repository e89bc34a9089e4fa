// Bulk access to one storage file: whole-record reads through a page-aligned
// buffer, binary searches by timestamp, and crash-safe replacement.

#include "RecordFile.h"

#include "DiskSteps.h"
#include "Logging.h"
#include "PathKind.h"
#include "TSFileStorage.h"
#include "StorageNames.h"

#include <QFileInfo>
#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <climits>
#include <cstring>
#include <new>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace Kel::detail {

DiskStepListener diskStepListener = nullptr;

namespace {

constexpr qint64 kBufferBytes = 1 << 20;

// Decoding stays out of line: inlined next to the read call, the compiler
// kept loop state in memory and the loop ran several times slower.
__attribute__((noinline)) void decodeFixed(const uchar* p, qint64 n, const RecordLayout& l,
                                           long long base, Interpolate::DataRecord* out)
{
    for (qint64 i = 0; i < n; ++i, p += l.stride) {
        out[i].timestamp = base + (long long)decodeOffset(p, l.offsetWidth);
        out[i].value = decodeValue(p + l.offsetWidth, l.type);
    }
}

// Appends the records of a block whose timestamps lie in [lo, hi]; true when
// one above hi was met (and the rest of the block left alone). The record the
// vector makes holds an empty QVariant, which has nothing to release: the
// value is built in its place. Moved in from a temporary, it cost one more
// call into Qt a record, to destroy the temporary, and a third of the read.
__attribute__((noinline)) bool appendFixed(const uchar* p, qint64 n, const RecordLayout& l,
                                           long long base, long long lo, long long hi,
                                           std::vector<Interpolate::DataRecord>& out)
{
    for (qint64 i = 0; i < n; ++i, p += l.stride) {
        const long long ts = base + (long long)decodeOffset(p, l.offsetWidth);
        if (ts > hi)
            return true;
        if (ts < lo)
            continue;
        Interpolate::DataRecord& rec = out.emplace_back();
        rec.timestamp = ts;
        new (&rec.value) QVariant(decodeValue(p + l.offsetWidth, l.type));
    }
    return false;
}

template <int Width, typename EncodeValue>
void encodeLoop(const Interpolate::DataRecord* r, qint64 n, int stride, long long base, uchar* p,
                EncodeValue encodeValue)
{
    for (qint64 i = 0; i < n; ++i, p += stride) {
        encodeOffset(p, quint64(r[i].timestamp - base), Width);
        encodeValue(p + Width, r[i].value);
    }
}

} // namespace

void encodeFixed(const Interpolate::DataRecord* records, qint64 n, const RecordLayout& layout,
                 long long base, uchar* out)
{
    const QMetaType::Type type = layout.type;
    withOffsetWidth(layout.offsetWidth, [&](auto width) {
        constexpr int w = decltype(width)::value;
        if (type == QMetaType::Double)
            encodeLoop<w>(records, n, layout.stride, base, out,
                          [](uchar* f, const QVariant& v) { encodeDouble(f, doubleOf(v)); });
        else
            encodeLoop<w>(records, n, layout.stride, base, out,
                          [type](uchar* f, const QVariant& v) { encodeValue(f, v, type); });
    });
}

void RecordEncoder::encode(uchar* p, const Interpolate::DataRecord& rec) const
{
    encodeOffset(p, quint64(rec.timestamp - base), layout.offsetWidth);
    uchar* field = p + layout.offsetWidth;
    if (layout.variable)
        encodeVarPosition(field, var ? var->append(rec.value) : 0);
    else
        encodeValue(field, rec.value, layout.type);
}

void RecordEncoder::append(QByteArray& out, const Interpolate::DataRecord& rec) const
{
    const qsizetype at = out.size();
    out.resize(at + layout.stride);
    encode(reinterpret_cast<uchar*>(out.data() + at), rec);
}

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

RecordFile::RecordFile(TSFileStorage& storage, TSFileInfo info, BlockBuffer* blocks)
    : storage(storage),
      fileInfo(std::move(info)),
      recordLayout(storage.valueType, fileInfo.getDirDepth()),
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
    return storage.openFile(file, mode) && learnSize();
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
    return baseTs + (long long)decodeOffset(p, recordLayout.offsetWidth);
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

qint64 RecordFile::probePosition(long long ts)
{
    const qint64 length = recordLayout.recordLength;
    qint64 lo = 0;
    qint64 hi = wholeBytes() / length;
    qint64 probed = 0;
    while (lo < hi) {
        const qint64 mid = (lo + hi) >> 1;
        probed = mid * length;
        uchar p[8] = {};
        readBytes(probed, reinterpret_cast<char*>(p), recordLayout.offsetWidth);
        const long long at = baseTs + (long long)decodeOffset(p, recordLayout.offsetWidth);
        if (at == ts)
            break;
        if (at < ts)
            lo = mid + 1;
        else
            hi = mid;
    }
    return probed;
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
    return {baseTs + (long long)decodeOffset(p, recordLayout.offsetWidth), valueOf(p + recordLayout.offsetWidth)};
}

template <typename Before>
qint64 RecordFile::firstNotBefore(Before before)
{
    qint64 lo = 0;
    qint64 hi = count();
    while (lo < hi) {
        const qint64 mid = (lo + hi) >> 1;
        if (before(timestampAt(mid)))
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

qint64 RecordFile::lowerBound(long long ts)
{
    return firstNotBefore([ts](long long at) { return at < ts; });
}

qint64 RecordFile::upperBound(long long ts)
{
    return firstNotBefore([ts](long long at) { return at <= ts; });
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
        var = std::make_unique<VarFileReader>(storage, varPath());
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
            out[done + i].timestamp = baseTs + (long long)decodeOffset(p, recordLayout.offsetWidth);
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
            const long long ts = baseTs + (long long)decodeOffset(p, recordLayout.offsetWidth);
            if (ts > hi)
                return false;
            if (ts >= lo)
                out.push_back({ts, valueOf(p + recordLayout.offsetWidth)});
        }
        return true;
    });
    return read < 0;
}

QString rewritePath(const QString& path)
{
    return names::withSuffix(path, names::kRewriteSuffix);
}

namespace {

// Gathers the pieces into the file with writev(2), so that each byte is
// copied once, from wherever it lies, straight into the file.
bool writePieces(int fd, const std::vector<Piece>& pieces)
{
    std::vector<iovec> chunk;
    for (size_t first = 0; first < pieces.size(); first += IOV_MAX) {
        chunk.clear();
        for (size_t i = first; i < std::min(pieces.size(), first + IOV_MAX); ++i)
            chunk.push_back({const_cast<void*>(pieces[i].data), size_t(pieces[i].size)});
        iovec* next = chunk.data();
        int left = int(chunk.size());
        while (left > 0) {
            ssize_t put = ::writev(fd, next, left);
            if (put < 0 && errno == EINTR)
                continue;
            if (put <= 0)
                return false;
            // A short write: skip what was written and go on from there.
            while (left > 0 && size_t(put) >= next->iov_len) {
                put -= ssize_t(next->iov_len);
                ++next;
                --left;
            }
            if (left > 0) {
                next->iov_base = static_cast<char*>(next->iov_base) + put;
                next->iov_len -= size_t(put);
            }
        }
    }
    return true;
}

bool writeWhole(const QString& path, const std::vector<Piece>& pieces)
{
    QFile out(path);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered))
        return false;
    const bool written = writePieces(out.handle(), pieces);
    out.close();
    diskStepDone();
    return written;
}

// Writes the pieces over what the open file holds and cuts it behind them.
bool writeOver(int fd, const std::vector<Piece>& pieces)
{
    qint64 size = 0;
    for (const Piece& piece : pieces)
        size += piece.size;
    const bool written = writePieces(fd, pieces) && ::ftruncate(fd, off_t(size)) == 0;
    ::close(fd);
    diskStepDone();
    return written;
}

bool writeWhole(const QString& path, const QByteArray& data)
{
    return writeWhole(path, {{data.constData(), data.size()}});
}

bool renameOver(const QString& from, const QString& to)
{
    const bool renamed = std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
    diskStepDone();
    return renamed;
}


} // namespace

namespace {

// Whether the open file is a regular file with no other name and no other
// opener: only then is a write lease granted. It is given up at once; under
// its hidden name, nobody who reads the tree can open the file after that.
bool heldHereOnly(int fd)
{
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1)
        return false;
    return ::fcntl(fd, F_SETLEASE, F_WRLCK) == 0 && ::fcntl(fd, F_SETLEASE, F_UNLCK) == 0;
}

} // namespace

SpareFile::SpareFile(const QString& seriesDir)
    : path(QFile::encodeName(seriesDir + QLatin1String(names::kSpareName)))
{
}

SpareFile::~SpareFile()
{
    if (used)
        ::unlink(path.constData());
}

int SpareFile::takeAs(const QString& to)
{
    const int fd = ::open(path.constData(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return -1;
    if (heldHereOnly(fd) && std::rename(path.constData(), QFile::encodeName(to).constData()) == 0) {
        diskStepDone();
        return fd;
    }
    ::close(fd);
    ::unlink(path.constData());
    return -1;
}

void SpareFile::keep(const QString& replaced)
{
    if (::link(QFile::encodeName(replaced).constData(), path.constData()) == 0)
        diskStepDone();
}

void SpareFile::drop()
{
    ::unlink(path.constData());
}

bool replaceFile(const QString& path, const std::vector<Piece>& pieces, SpareFile* spare)
{
    const QString temp = rewritePath(path);
    const int fd = spare ? spare->takeAs(temp) : -1;
    const bool written = fd >= 0 ? writeOver(fd, pieces) : writeWhole(temp, pieces);
    if (written && spare)
        spare->keep(path);
    if (written && renameOver(temp, path))
        return true;
    if (spare)
        spare->drop();
    QFile::remove(temp);
    return false;
}

bool replaceFile(const QString& path, const char* data, qint64 size)
{
    return replaceFile(path, {{data, size}});
}

bool replaceFileAndSideFile(const QString& path, const QByteArray& data, const QByteArray& varData)
{
    const QString temp = rewritePath(path);
    const QString tempVar = names::sideFile(temp);
    // The storage file is written first: while it exists beside the old one,
    // the replacement has not begun and recovery throws both away.
    if (!writeWhole(temp, data) || !writeWhole(tempVar, varData) || !renameOver(temp, path)) {
        QFile::remove(temp);
        QFile::remove(tempVar);
        return false;
    }
    // A reader that met the pair half renamed may have finished the rename.
    return renameOver(tempVar, names::sideFile(path)) || pathKind(tempVar) == PathKind::Missing;
}

// Which step a replacement stopped at is told by the names that stand; where
// the system cannot tell whether one stands, nothing is undone or finished.
bool recoverRewrite(const QString& path)
{
    const QString temp = rewritePath(path);
    const QString tempVar = names::sideFile(temp);
    switch (pathKind(temp)) {
    case PathKind::Missing:
        return finishRewrite(path);
    case PathKind::Unknown:
        return false;
    default:
        QFile::remove(temp);
        QFile::remove(tempVar);
        return pathKind(temp) == PathKind::Missing;
    }
}

bool finishRewrite(const QString& path)
{
    const PathKind temp = pathKind(rewritePath(path));
    if (temp != PathKind::Missing)
        return temp != PathKind::Unknown;  // not begun: the writer's to finish or undo
    const QString tempVar = names::sideFile(rewritePath(path));
    switch (pathKind(tempVar)) {
    case PathKind::Missing:
        return true;
    case PathKind::Unknown:
        return false;
    default:
        return renameOver(tempVar, names::sideFile(path));
    }
}

} // namespace Kel::detail
