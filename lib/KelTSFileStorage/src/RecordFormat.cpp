// The record format: value-type tables, the encoding of one record, the
// side files of variable values, and the single-record operations of the
// storage that move through a file with a QDataStream.

#include "TSFileStorage.h"

#include "DiskSteps.h"
#include "Logging.h"
#include "PathKind.h"
#include "RecordCodec.h"
#include "StorageNames.h"

#include <QBuffer>
#include <QFileInfo>
#include <QtEndian>

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace Kel {

namespace detail {

QString markerOf(QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Bool: case QMetaType::Char: case QMetaType::UChar:
        return QStringLiteral("B");
    case QMetaType::Int: case QMetaType::UInt:
        return QStringLiteral("I");
    case QMetaType::LongLong: case QMetaType::ULongLong:
        return QStringLiteral("L");
    case QMetaType::Double:
        return QStringLiteral("D");
    case QMetaType::Short: case QMetaType::UShort:
        return QStringLiteral("W");
    case QMetaType::Float:
        return QStringLiteral("F");
    default:
        return QStringLiteral("V");
    }
}

int dataLengthOf(QMetaType::Type type)
{
    // Ids 1 to 38 are looked up; Long (32) and ULong (35) get 4 although they
    // are kept as variable values.
    switch (type) {
    case QMetaType::Bool: case QMetaType::Char: case QMetaType::UChar:
        return 1;
    case QMetaType::Short: case QMetaType::UShort:
        return 2;
    case QMetaType::LongLong: case QMetaType::ULongLong: case QMetaType::Double:
        return 8;
    default:
        return 4;
    }
}

int offsetWidthOf(int depth)
{
    static const int widths[] = {5, 4, 4, 3, 2};
    return depth >= 0 && depth <= 4 ? widths[depth] : 0;
}

RecordLayout::RecordLayout(QMetaType::Type type, int depth)
    : type(type),
      variable(isVariableType(type)),
      offsetWidth(offsetWidthOf(depth)),
      recordLength(offsetWidth + dataLengthOf(type)),
      stride(offsetWidth + (type == QMetaType::Float ? 8 : dataLengthOf(type)))
{
}

void encodeValue(uchar* p, const QVariant& value, QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Bool: p[0] = value.toBool() ? 1 : 0; break;
    case QMetaType::Char: p[0] = uchar(value.toInt()); break;
    case QMetaType::UChar: p[0] = uchar(value.toUInt()); break;
    case QMetaType::Short: qToBigEndian(quint16(value.toInt()), p); break;
    case QMetaType::UShort: qToBigEndian(quint16(value.toUInt()), p); break;
    case QMetaType::Int: qToBigEndian(quint32(value.toInt()), p); break;
    case QMetaType::UInt: qToBigEndian(quint32(value.toUInt()), p); break;
    case QMetaType::LongLong: qToBigEndian(quint64(value.toLongLong()), p); break;
    case QMetaType::ULongLong: qToBigEndian(quint64(value.toULongLong()), p); break;
    case QMetaType::Double: encodeDouble(p, doubleOf(value)); break;
    // Written through the stream's float operator at double precision: the
    // value widened to an 8-byte double.
    case QMetaType::Float: encodeDouble(p, double(value.toFloat())); break;
    default: break;
    }
}

QVariant decodeValue(const uchar* p, QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Bool: return QVariant(p[0] != 0);
    case QMetaType::Char: return QVariant(int(qint8(p[0])));
    case QMetaType::UChar: return QVariant(int(p[0]));
    case QMetaType::Short: return QVariant(int(qint16(qFromBigEndian<quint16>(p))));
    case QMetaType::UShort: return QVariant(int(qFromBigEndian<quint16>(p)));
    case QMetaType::Int: return QVariant(int(qFromBigEndian<quint32>(p)));
    case QMetaType::UInt: return QVariant(uint(qFromBigEndian<quint32>(p)));
    case QMetaType::LongLong: return QVariant(qlonglong(qFromBigEndian<quint64>(p)));
    case QMetaType::ULongLong: return QVariant(qulonglong(qFromBigEndian<quint64>(p)));
    case QMetaType::Double: return QVariant(decodeDouble(p));
    case QMetaType::Float: return QVariant(narrowToFloat(decodeDouble(p)));
    default: return QVariant();
    }
}

void encodeVarPosition(uchar* p, qint32 position)
{
    qToBigEndian(quint32(position), p);
}

qint32 decodeVarPosition(const uchar* p)
{
    return qint32(qFromBigEndian<quint32>(p));
}

QVariant readVariant(QDataStream& stream)
{
    QVariant value;
    try {
        stream >> value;
    } catch (...) {
        // A corrupt length field can ask for more memory than there is.
        stream.setStatus(QDataStream::ReadCorruptData);
        return QVariant();
    }
    return stream.status() == QDataStream::Ok ? value : QVariant();
}

// A value of a type that Qt cannot serialise is written as the stream
// writes it (its type and no data, with Qt's own warning); it reads back as
// no value. The stream then refuses every later write; each value has a
// stream of its own in the format, so the values after it are written.
void writeVariant(QDataStream& stream, const QVariant& value)
{
    const bool wasOk = stream.status() == QDataStream::Ok;
    stream << value;
    if (wasOk && value.isValid() && !value.metaType().hasRegisteredDataStreamOperators())
        stream.resetStatus();
}

VarFileReader::VarFileReader(TSFileStorage& storage, QString varPath)
    : storage(storage), path(std::move(varPath))
{
}

VarFileReader::~VarFileReader() = default;

QVariant VarFileReader::valueAt(qint32 position)
{
    if (failed)
        return QVariant();
    if (!file) {
        file = std::make_unique<QFile>(path);
        // A side file that is missing (or is no file) does not turn up by
        // waiting: it fails at once instead of after the retries of a file
        // that another process holds, which would stall every read of it.
        const PathKind kind = pathKind(path);
        if (kind != PathKind::File || !storage.openFile(*file, QIODevice::ReadOnly)) {
            // A side file that is missing or is no file stays so; one that
            // the system would not look up or open may be there.
            refused = kind == PathKind::File || kind == PathKind::Unknown;
            storageLog(LOG_FAILURE, QStringLiteral("Could not open '%1' for read (readCurrDataRecord)"),
                       __LINE__)
                .arg(path)
                .endl();
            failed = true;
            return QVariant();
        }
        stream = std::make_unique<QDataStream>(file.get());
        stream->setVersion(QDataStream::Qt_5_13);
        size = currentSize();
    }
    // Values are mostly read in the order they were written: the file is
    // asked for its size again only for a position beyond the last known
    // size, and moved only when it is not already at the position.
    if (position >= size)
        size = currentSize();
    if (refused)
        return unreadable(position, "could not be read");
    if (position < 0 || position >= size)
        return unreadable(position, "lies past the end of the file");
    QVariant value = readAt(position);
    if (stream->status() == QDataStream::Ok)
        return value;
    // The stream does not tell a read that the system refused from damaged
    // data: a byte read directly tells, and a refusal that has passed is
    // followed by one more try.
    char probe;
    if (::pread(file->handle(), &probe, 1, position) != 1) {
        refused = true;
        return unreadable(position, "could not be read");
    }
    value = readAt(position);
    return stream->status() == QDataStream::Ok ? value : unreadable(position, "is corrupt");
}

QVariant VarFileReader::readAt(qint32 position)
{
    stream->resetStatus();
    if (file->pos() != position && !file->seek(position)) {
        stream->setStatus(QDataStream::ReadPastEnd);
        return QVariant();
    }
    return readVariant(*stream);
}

qint64 VarFileReader::currentSize()
{
    struct stat st;
    if (::fstat(file->handle(), &st) == 0)
        return st.st_size;
    refused = true;
    return 0;
}

QVariant VarFileReader::unreadable(qint32 position, const char* why)
{
    // Once per file and read: a damaged file can hold many such values.
    if (!reported)
        storageLog(LOG_FAILURE, QStringLiteral("Value at position %1 of '%2' %3; it reads as no value"), __LINE__)
            .arg(position)
            .arg(path)
            .arg(QString::fromLatin1(why))
            .endl();
    reported = true;
    return QVariant();
}

VarBuffer::VarBuffer(qint64 startSize) : startSize(startSize), stream(&data, QIODevice::WriteOnly)
{
    stream.setVersion(QDataStream::Qt_5_13);
}

qint32 VarBuffer::append(const QVariant& value)
{
    const qint32 position = qint32(startSize + data.size());
    writeVariant(stream, value);
    return position;
}

VarFileWriter::VarFileWriter(TSFileStorage& storage, QString varPath)
    : storage(storage), path(std::move(varPath))
{
}

VarFileWriter::~VarFileWriter()
{
    flush();
}

bool VarFileWriter::open()
{
    auto opened = std::make_unique<QFile>(path);
    // A directory or other non-file in the side file's place does not go
    // away by waiting: it fails at once, as for reading. Positions are
    // handed out from the file's end as the system reports it: a size that
    // could not be learnt would point records at the values of others.
    const PathKind kind = pathKind(path);
    const bool openable = kind != PathKind::Directory && kind != PathKind::Other;
    off_t end = -1;
    if (openable && storage.openFile(*opened, QIODevice::WriteOnly | QIODevice::Append))
        end = ::lseek(opened->handle(), 0, SEEK_END);
    if (end < 0) {
        storageLog(LOG_FAILURE, QStringLiteral("Could not open '%1' for write (writeDataRecord)"),
                   __LINE__)
            .arg(path)
            .endl();
        failed = true;
        return false;
    }
    buffer = std::make_unique<VarBuffer>(end);
    file = std::move(opened);
    return true;
}

qint32 VarFileWriter::append(const QVariant& value)
{
    if (failed || (!file && !open()))
        return 0;
    return buffer->append(value);
}

bool VarFileWriter::flush()
{
    // A side file that could not be opened was logged, and its records are
    // stored all the same, with position 0.
    if (!file)
        return true;
    const QByteArray& pending = buffer->bytes();
    // QFile buffers what it is given: only its flush tells whether the
    // values reached the file.
    const bool ok = pending.isEmpty() || (file->write(pending) == pending.size() && file->flush());
    file->close();
    diskStepDone();
    file.reset();
    buffer.reset();
    return ok;
}

} // namespace detail

using detail::RecordLayout;

QString TSFileStorage::getMarkerForValueType(QMetaType::Type type)
{
    return detail::markerOf(type);
}

int TSFileStorage::getDataLengthForValueType(QMetaType::Type type)
{
    return detail::dataLengthOf(type);
}

int TSFileStorage::getDataLengthForTimestampOffset(TSFileInfo::DirDepth depth)
{
    return depth >= 0 && depth <= 4 ? tsOffsetLengths[depth] : 0;
}

int TSFileStorage::getStoredRecordLength(TSFileInfo::DirDepth depth)
{
    return RecordLayout(valueType, depth).stride;
}

void TSFileStorage::writeDataRecord(QDataStream& stream, Interpolate::DataRecord rec,
                                    long long baseTs, TSFileInfo::DirDepth depth)
{
    const RecordLayout layout(valueType, depth);
    uchar buf[16] = {};
    detail::encodeOffset(buf, quint64(rec.timestamp - baseTs), layout.offsetWidth);
    uchar* field = buf + layout.offsetWidth;
    if (!layout.variable) {
        detail::encodeValue(field, rec.value, valueType);
    } else {
        auto* device = qobject_cast<QFileDevice*>(stream.device());
        const QString varPath = detail::names::sideFile(device ? device->fileName() : QString());
        QFile varFile(varPath);
        if (device && openFile(varFile, QIODevice::WriteOnly | QIODevice::Append)) {
            detail::encodeVarPosition(field, qint32(varFile.size()));
            QDataStream varStream(&varFile);
            varStream.setVersion(QDataStream::Qt_5_13);
            detail::writeVariant(varStream, rec.value);
            varFile.close();
        } else {
            detail::storageLog(detail::LOG_FAILURE,
                               QStringLiteral("Could not open '%1' for write (writeDataRecord)"),
                               __LINE__)
                .arg(varPath)
                .endl();
        }
    }
    stream.writeRawData(reinterpret_cast<const char*>(buf), layout.stride);
}

long long TSFileStorage::readCurrTsOffset(QDataStream& stream, TSFileInfo::DirDepth depth)
{
    const int width = detail::offsetWidthOf(depth);
    uchar buf[8] = {};
    if (width == 0 || stream.readRawData(reinterpret_cast<char*>(buf), width) != width)
        return 0;
    return (long long)detail::decodeOffset(buf, width);
}

Interpolate::DataRecord TSFileStorage::readCurrDataRecord(QDataStream& stream, long long baseTs,
                                                          TSFileInfo::DirDepth depth)
{
    const RecordLayout layout(valueType, depth);
    uchar buf[16] = {};
    const int got = stream.readRawData(reinterpret_cast<char*>(buf), layout.stride);
    // A field that could not be read whole reads as zero, as QDataStream's
    // operators would give it.
    if (got < layout.offsetWidth)
        std::memset(buf, 0, sizeof buf);
    else if (got < layout.stride)
        std::memset(buf + layout.offsetWidth, 0, sizeof buf - size_t(layout.offsetWidth));

    Interpolate::DataRecord rec;
    rec.timestamp = baseTs + (long long)detail::decodeOffset(buf, layout.offsetWidth);
    const uchar* field = buf + layout.offsetWidth;
    if (!layout.variable) {
        rec.value = detail::decodeValue(field, valueType);
        return rec;
    }
    auto* device = qobject_cast<QFileDevice*>(stream.device());
    detail::VarFileReader var(*this, detail::names::sideFile(device ? device->fileName() : QString()));
    rec.value = var.valueAt(detail::decodeVarPosition(field));
    return rec;
}

Interpolate::DataRecord TSFileStorage::readLastDataRecord(QDataStream& stream, long long fileSize,
                                                          long long baseTs,
                                                          TSFileInfo::DirDepth depth)
{
    const long long position = fileSize - RecordLayout(valueType, depth).recordLength;
    if (position >= 0)
        stream.device()->seek(position);
    return readCurrDataRecord(stream, baseTs, depth);
}

long long TSFileStorage::seekToTsOffsetPos(QDataStream& stream, long long fileSize,
                                           long long tsOffset, int tsOffsetLength,
                                           TSFileInfo::DirDepth depth)
{
    QIODevice* device = stream.device();
    const long long length = tsOffsetLength + dataLength;
    const long long count = length > 0 ? fileSize / length : 0;
    if (count > 0) {
        long long lo = 0;
        long long hi = count;
        do {
            const long long mid = (lo + hi) >> 1;
            device->seek(mid * length);
            const long long offset = readCurrTsOffset(stream, depth);
            if (offset == tsOffset)
                break;
            if (offset < tsOffset)
                lo = mid + 1;
            else
                hi = mid;
        } while (lo < hi);
    }
    // Back to the start of the record probed last. Before the first record
    // there is nowhere to go back to, and the device stays where it is.
    const long long back = device->pos() - tsOffsetLength;
    if (back >= 0)
        device->seek(back);
    return device->pos();
}

} // namespace Kel
