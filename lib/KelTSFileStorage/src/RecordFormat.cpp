// The single-record operations of the storage that move through a file with
// a QDataStream, and its value-type tables: the format's own adapters over
// the record codec. Positions are computed with the declared record length,
// as the format always has; a read past the end gives zero fields.

#include "TSFileStorage.h"

#include "Logging.h"
#include "RecordCodec.h"
#include "SideFile.h"
#include "StorageNames.h"


#include <cstring>

namespace Kel {

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
    rec.timestamp = detail::decodeTimestamp(buf, layout.offsetWidth, baseTs);
    const uchar* field = buf + layout.offsetWidth;
    if (!layout.variable) {
        rec.value = detail::decodeValue(field, valueType);
        return rec;
    }
    auto* device = qobject_cast<QFileDevice*>(stream.device());
    detail::VarFileReader var(detail::names::sideFile(device ? device->fileName() : QString()));
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
    const auto offsetAt = [&](qint64 i) {
        device->seek(i * length);
        return readCurrTsOffset(stream, depth);
    };
    detail::lastProbedIndex(length > 0 ? fileSize / length : 0, offsetAt, tsOffset);
    // Back to the start of the record probed last. Before the first record
    // there is nowhere to go back to, and the device stays where it is.
    const long long back = device->pos() - tsOffsetLength;
    if (back >= 0)
        device->seek(back);
    return device->pos();
}

} // namespace Kel
