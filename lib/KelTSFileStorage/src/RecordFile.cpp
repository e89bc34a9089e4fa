// Bulk access to one storage file: whole-record reads through a page-aligned
// buffer, binary searches by timestamp, and crash-safe replacement.

#include "RecordFile.h"

#include "TSFileStorage.h"

#include <QFileInfo>
#include <QtEndian>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace Kel::detail {

namespace {

constexpr qint64 kBufferBytes = 1 << 20;

// Decoding stays out of line: inlined next to the read call, the compiler
// kept loop state in memory and the loop ran several times slower.
template <typename DecodeValue>
void decodeLoop(const uchar* p, qint64 n, const RecordLayout& l, long long base,
                Interpolate::DataRecord* out, DecodeValue decodeValue)
{
    const int w = l.offsetWidth;
    for (qint64 i = 0; i < n; ++i, p += l.stride) {
        out[i].timestamp = base + (long long)decodeOffset(p, w);
        decodeValue(p + w, out[i].value);
    }
}

__attribute__((noinline)) void decodeFixed(const uchar* p, qint64 n, const RecordLayout& l,
                                           long long base, Interpolate::DataRecord* out)
{
    switch (l.type) {
    case QMetaType::Double:
        decodeLoop(p, n, l, base, out, [](const uchar* f, QVariant& v) {
            const quint64 bits = qFromBigEndian<quint64>(f);
            double d;
            std::memcpy(&d, &bits, 8);
            v.setValue(d);
        });
        break;
    case QMetaType::Int:
        decodeLoop(p, n, l, base, out, [](const uchar* f, QVariant& v) {
            v.setValue(int(qFromBigEndian<quint32>(f)));
        });
        break;
    case QMetaType::LongLong:
        decodeLoop(p, n, l, base, out, [](const uchar* f, QVariant& v) {
            v.setValue(qlonglong(qFromBigEndian<quint64>(f)));
        });
        break;
    default: {
        const QMetaType::Type type = l.type;
        decodeLoop(p, n, l, base, out,
                   [type](const uchar* f, QVariant& v) { decodeValue(f, type, v); });
        break;
    }
    }
}

} // namespace

void RecordEncoder::encode(uchar* p, const Interpolate::DataRecord& rec) const
{
    std::memset(p, 0, size_t(layout.stride));
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

void RecordFile::FreeDeleter::operator()(void* p) const
{
    std::free(p);
}

RecordFile::RecordFile(TSFileStorage& storage, TSFileInfo info)
    : storage(storage),
      fileInfo(std::move(info)),
      recordLayout(storage.valueType, fileInfo.getDirDepth()),
      baseTs(fileInfo.getBaseTsMs()),
      file(fileInfo.filePath())
{
}

RecordFile::~RecordFile() = default;

bool RecordFile::open(QIODevice::OpenMode mode)
{
    if (recordLayout.variable)
        recoverRewrite(fileInfo.filePath());
    if (!storage.openFile(file, mode))
        return false;
    fileSize = file.size();
    return true;
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
        const ssize_t got = ::pread(fd, out, size_t(n), offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
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
        const ssize_t put = ::pwrite(fd, data, size_t(n), byteOffset);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        data += put;
        byteOffset += put;
        n -= put;
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
    fileSize = whole;
    return true;
}

long long RecordFile::timestampAt(qint64 index)
{
    uchar p[8] = {};
    readBytes(index * recordLayout.stride, reinterpret_cast<char*>(p), recordLayout.offsetWidth);
    return baseTs + (long long)decodeOffset(p, recordLayout.offsetWidth);
}

Interpolate::DataRecord RecordFile::recordAt(qint64 index)
{
    Interpolate::DataRecord rec;
    readRecords(index, 1, &rec);
    return rec;
}

qint64 RecordFile::probe(long long ts)
{
    qint64 lo = 0;
    qint64 hi = count();
    qint64 mid = -1;
    while (lo < hi) {
        mid = (lo + hi) >> 1;
        const long long at = timestampAt(mid);
        if (at == ts)
            break;
        if (at < ts)
            lo = mid + 1;
        else
            hi = mid;
    }
    return mid;
}

qint64 RecordFile::lowerBound(long long ts)
{
    qint64 lo = 0;
    qint64 hi = count();
    while (lo < hi) {
        const qint64 mid = (lo + hi) >> 1;
        if (timestampAt(mid) < ts)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

qint64 RecordFile::upperBound(long long ts)
{
    qint64 lo = 0;
    qint64 hi = count();
    while (lo < hi) {
        const qint64 mid = (lo + hi) >> 1;
        if (timestampAt(mid) <= ts)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

bool RecordFile::readRaw(qint64 from, qint64 n, char* out)
{
    return readBytes(from * recordLayout.stride, out, n * recordLayout.stride);
}

QVariant RecordFile::valueOf(const uchar* field)
{
    if (!recordLayout.variable) {
        QVariant v;
        decodeValue(field, recordLayout.type, v);
        return v;
    }
    if (!var)
        var = std::make_unique<VarFileReader>(storage, varPath());
    return var->valueAt(decodeVarPosition(field));
}

qint64 RecordFile::readRecords(qint64 from, qint64 n, Interpolate::DataRecord* out)
{
    const qint64 stride = recordLayout.stride;
    n = std::max<qint64>(0, std::min(n, count() - from));
    if (!buffer) {
        bufferRecords = kBufferBytes / stride;
        buffer.reset(static_cast<uchar*>(std::aligned_alloc(4096, size_t(kBufferBytes))));
    }
    qint64 done = 0;
    while (done < n) {
        const qint64 chunk = std::min(bufferRecords, n - done);
        if (!readBytes((from + done) * stride, reinterpret_cast<char*>(buffer.get()), chunk * stride))
            break;
        if (!recordLayout.variable) {
            decodeFixed(buffer.get(), chunk, recordLayout, baseTs, out + done);
        } else {
            const uchar* p = buffer.get();
            for (qint64 i = 0; i < chunk; ++i, p += stride) {
                out[done + i].timestamp =
                    baseTs + (long long)decodeOffset(p, recordLayout.offsetWidth);
                out[done + i].value = valueOf(p + recordLayout.offsetWidth);
            }
        }
        done += chunk;
    }
    return done;
}

QString rewritePath(const QString& path)
{
    return path + QStringLiteral(".new");
}

namespace {

bool writeWhole(const QString& path, const QByteArray& data)
{
    QFile out(path);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    const bool written = out.write(data) == data.size() && out.flush();
    out.close();
    return written;
}

bool renameOver(const QString& from, const QString& to)
{
    return std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

QString sideFileOf(const QString& path)
{
    return path + QStringLiteral(".var");
}

} // namespace

bool replaceFile(const QString& path, const QByteArray& data)
{
    const QString temp = rewritePath(path);
    if (writeWhole(temp, data) && renameOver(temp, path))
        return true;
    QFile::remove(temp);
    return false;
}

bool replaceFileAndSideFile(const QString& path, const QByteArray& data, const QByteArray& varData)
{
    const QString temp = rewritePath(path);
    const QString tempVar = sideFileOf(temp);
    // The storage file is written first: while it exists beside the old one,
    // the replacement has not begun and recovery throws both away.
    if (!writeWhole(temp, data) || !writeWhole(tempVar, varData) || !renameOver(temp, path)) {
        QFile::remove(temp);
        QFile::remove(tempVar);
        return false;
    }
    return renameOver(tempVar, sideFileOf(path));
}

void recoverRewrite(const QString& path)
{
    const QString temp = rewritePath(path);
    const QString tempVar = sideFileOf(temp);
    if (QFileInfo::exists(temp)) {
        QFile::remove(temp);
        QFile::remove(tempVar);
    } else if (QFileInfo::exists(tempVar)) {
        renameOver(tempVar, sideFileOf(path));
    }
}

} // namespace Kel::detail
