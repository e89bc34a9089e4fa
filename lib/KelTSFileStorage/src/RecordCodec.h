// The bytes of a storage file: fixed-length records of a big-endian timestamp
// offset (its width set by the file's depth) and a value (its width set by the
// series' value type). Values of variable length live in the ".var" side file
// and the record holds their 32-bit position there.
//
// Everything that reads or writes records, one at a time through QDataStream
// or in bulk through buffers, encodes and decodes them here.
#pragma once

#include "Interpolate.h"

#include <QDataStream>
#include <QFile>
#include <QMetaType>
#include <QString>
#include <QVariant>

#include <memory>

namespace Kel {
class TSFileStorage;
}

namespace Kel::detail {

// The value types that have a value field of their own; every other type is
// kept in the side file (marker "V").
bool isVariableType(QMetaType::Type type);
QString markerOf(QMetaType::Type type);
int dataLengthOf(QMetaType::Type type);
int offsetWidthOf(int depth);

// How the records of one file are laid out.
struct RecordLayout {
    RecordLayout(QMetaType::Type type, int depth);

    QMetaType::Type type;
    bool variable;
    int offsetWidth;
    // Offset width plus the type's data length: the length that positions
    // and counts have always been computed with.
    int recordLength;
    // The bytes one record takes on disk. It differs from recordLength only
    // for Float, whose value is written widened to an 8-byte double.
    int stride;
};

void encodeOffset(uchar* p, unsigned long long offset, int width);
unsigned long long decodeOffset(const uchar* p, int width);

// Fixed-length value fields; not for variable types.
void encodeValue(uchar* p, const QVariant& value, QMetaType::Type type);
QVariant decodeValue(const uchar* p, QMetaType::Type type);

void encodeVarPosition(uchar* p, qint32 position);
qint32 decodeVarPosition(const uchar* p);

// Reads one serialised value; corrupt or missing data gives an invalid
// QVariant, never an exception.
QVariant readVariant(QDataStream& stream);
void writeVariant(QDataStream& stream, const QVariant& value);

// Values of one side file, read at their positions. The file is opened on
// first use and kept open while one storage file is read.
class VarFileReader {
public:
    VarFileReader(TSFileStorage& storage, QString varPath);
    ~VarFileReader();
    VarFileReader(const VarFileReader&) = delete;
    VarFileReader& operator=(const VarFileReader&) = delete;

    // The value at a position; a position past the end or a corrupt value
    // gives an invalid QVariant and is logged.
    QVariant valueAt(qint32 position);

private:
    QVariant unreadable(qint32 position, const char* why);

    TSFileStorage& storage;
    QString path;
    std::unique_ptr<QFile> file;
    std::unique_ptr<QDataStream> stream;
    bool failed = false;
    bool reported = false;
};

// Where encoded records put the values of variable types: each value is
// serialised and its position in the side file handed back.
class VarSink {
public:
    virtual ~VarSink() = default;
    virtual qint32 append(const QVariant& value) = 0;
};

// Serialised values in memory, positioned as if appended to a side file of
// startSize bytes.
class VarBuffer : public VarSink {
public:
    explicit VarBuffer(qint64 startSize = 0);
    qint32 append(const QVariant& value) override;
    const QByteArray& bytes() const { return data; }

private:
    qint64 startSize;
    QByteArray data;
    QDataStream stream;
};

// Values appended to one side file. Positions are handed out at once; the
// serialised values are written by flush(), before the records that refer to
// them. When the side file cannot be opened the records get position 0.
class VarFileWriter : public VarSink {
public:
    VarFileWriter(TSFileStorage& storage, QString varPath);
    ~VarFileWriter() override;
    VarFileWriter(const VarFileWriter&) = delete;
    VarFileWriter& operator=(const VarFileWriter&) = delete;

    qint32 append(const QVariant& value) override;
    bool flush();

private:
    bool open();

    TSFileStorage& storage;
    QString path;
    std::unique_ptr<QFile> file;
    std::unique_ptr<VarBuffer> buffer;
    bool failed = false;
};

} // namespace Kel::detail
