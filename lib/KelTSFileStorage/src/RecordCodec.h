// The bytes of a storage file: fixed-length records of a big-endian timestamp
// offset (its width set by the file's depth) and a value (its width set by the
// series' value type). Values of variable length live in the ".var" side file
// and the record holds their 32-bit position there.
//
// Everything that reads or writes records, one at a time through QDataStream
// or in bulk through buffers, encodes and decodes them here.
#pragma once

#include "Interpolate.h"
#include "TSFileColumns.h"

#include <QDataStream>
#include <QFile>
#include <QMetaType>
#include <QString>
#include <QVariant>
#include <QtEndian>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

namespace Kel::detail {

// The value types that have a value field of their own; every other type is
// kept in the side file (marker "V"). Inline: the tool asks it too.
// Whether a type's values are floating point (Float and Double).
inline bool isRealType(QMetaType::Type type)
{
    return type == QMetaType::Double || type == QMetaType::Float;
}

inline bool isVariableType(QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Bool: case QMetaType::Int: case QMetaType::UInt:
    case QMetaType::LongLong: case QMetaType::ULongLong: case QMetaType::Double:
    case QMetaType::Short: case QMetaType::Char: case QMetaType::UShort:
    case QMetaType::UChar: case QMetaType::Float:
        return false;
    default:
        return true;
    }
}
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

// Offsets and doubles are coded inline: the bulk loops code one per record,
// and a loop whose width is a constant folds the width's switch away.
inline void encodeOffset(uchar* p, unsigned long long offset, int width)
{
    switch (width) {
    case 5:
        p[0] = uchar(offset >> 32);
        qToBigEndian(quint32(offset), p + 1);
        break;
    case 4:
        qToBigEndian(quint32(offset), p);
        break;
    case 3:
        p[0] = uchar(offset >> 16);
        qToBigEndian(quint16(offset), p + 1);
        break;
    case 2:
        qToBigEndian(quint16(offset), p);
        break;
    default:
        break;
    }
}

inline unsigned long long decodeOffset(const uchar* p, int width)
{
    switch (width) {
    case 5:
        return (quint64(p[0]) << 32) | qFromBigEndian<quint32>(p + 1);
    case 4:
        return qFromBigEndian<quint32>(p);
    case 3:
        return (quint64(p[0]) << 16) | qFromBigEndian<quint16>(p + 1);
    case 2:
        return qFromBigEndian<quint16>(p);
    default:
        return 0;
    }
}

// A record's timestamp: its file's base plus the offset at p.
inline long long decodeTimestamp(const uchar* p, int width, long long base)
{
    return base + (long long)decodeOffset(p, width);
}

// The storage's binary search: the first index in [lo, hi) whose timestamp
// (timestampAt(i)) does not pass before(), hi when none.
template <typename TimestampAt, typename Before>
qint64 firstIndexNotBefore(qint64 lo, qint64 hi, TimestampAt timestampAt, Before before)
{
    while (lo < hi) {
        const qint64 mid = (lo + hi) >> 1;
        if (before(timestampAt(mid)))
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

// The format's own search for a timestamp among count records, as lookups
// have always probed: it halves the range until a probe meets ts or the
// range closes, and answers the index it probed last (the match when there
// is one, else a neighbour of ts's place); -1 when count is 0. narrowed(lo,
// hi) hears the range before each probe, so that a caller may read what is
// left of it at once.
template <typename TimestampAt, typename Narrowed>
qint64 lastProbedIndex(qint64 count, TimestampAt timestampAt, long long ts, Narrowed narrowed)
{
    qint64 lo = 0;
    qint64 hi = count;
    qint64 probed = -1;
    while (lo < hi) {
        narrowed(lo, hi);
        probed = (lo + hi) >> 1;
        const long long at = timestampAt(probed);
        if (at == ts)
            break;
        if (at < ts)
            lo = probed + 1;
        else
            hi = probed;
    }
    return probed;
}

template <typename TimestampAt>
qint64 lastProbedIndex(qint64 count, TimestampAt timestampAt, long long ts)
{
    return lastProbedIndex(count, timestampAt, ts, [](qint64, qint64) {});
}

// Calls f with the offset width as a std::integral_constant, for loops over
// the records of one file.
template <typename F>
inline void withOffsetWidth(int width, F f)
{
    switch (width) {
    case 5: f(std::integral_constant<int, 5>()); break;
    case 4: f(std::integral_constant<int, 4>()); break;
    case 3: f(std::integral_constant<int, 3>()); break;
    case 2: f(std::integral_constant<int, 2>()); break;
    default: f(std::integral_constant<int, 0>()); break;
    }
}

inline void encodeDouble(uchar* p, double d)
{
    quint64 bits;
    std::memcpy(&bits, &d, 8);
    qToBigEndian(bits, p);
}

inline double decodeDouble(const uchar* p)
{
    const quint64 bits = qFromBigEndian<quint64>(p);
    double d;
    std::memcpy(&d, &bits, 8);
    return d;
}

// A stored double as a Float series gives it back: out-of-range values
// become infinities instead of undefined conversions.
inline float narrowToFloat(double d)
{
    if (std::isfinite(d) && std::fabs(d) > double(FLT_MAX))
        return d > 0 ? INFINITY : -INFINITY;
    return float(d);
}

// A fixed-length value field as decodeValue(p, type).toDouble() gives it,
// without building the QVariant.
inline double decodeAsDouble(const uchar* p, QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Double: return decodeDouble(p);
    case QMetaType::Float: return double(narrowToFloat(decodeDouble(p)));
    case QMetaType::Bool: return p[0] != 0 ? 1.0 : 0.0;
    case QMetaType::Char: return double(qint8(p[0]));
    case QMetaType::UChar: return double(p[0]);
    case QMetaType::Short: return double(qint16(qFromBigEndian<quint16>(p)));
    case QMetaType::UShort: return double(qFromBigEndian<quint16>(p));
    case QMetaType::Int: return double(qint32(qFromBigEndian<quint32>(p)));
    case QMetaType::UInt: return double(qFromBigEndian<quint32>(p));
    case QMetaType::LongLong: return double(qint64(qFromBigEndian<quint64>(p)));
    case QMetaType::ULongLong: return double(qFromBigEndian<quint64>(p));
    default: return 0.0;
    }
}

// The double a QVariant holds, read in place when it holds one: toDouble()
// takes two calls into Qt for it. Any other content converts as toDouble()
// says.
inline double doubleOf(const QVariant& value)
{
    if (value.data_ptr().type() == QMetaType::fromType<double>())
        return *static_cast<const double*>(value.constData());
    return value.toDouble();
}

// Fixed-length value fields; not for variable types.
void encodeValue(uchar* p, const QVariant& value, QMetaType::Type type);
QVariant decodeValue(const uchar* p, QMetaType::Type type);

void encodeVarPosition(uchar* p, qint32 position);
qint32 decodeVarPosition(const uchar* p);

// Where encoded records put the values of variable types: each value is
// serialised and its position in the side file handed back.
class VarSink {
public:
    virtual ~VarSink() = default;
    virtual qint32 append(const QVariant& value) = 0;
};

// Encodes records of one file into bytes; values of variable types go to the
// side file through the given sink.
class RecordEncoder {
public:
    RecordEncoder(const RecordLayout& layout, long long base, VarSink* var)
        : layout(layout), base(base), var(var)
    {
    }
    void encode(uchar* p, const Interpolate::DataRecord& rec) const;
    void append(QByteArray& out, const Interpolate::DataRecord& rec) const;

private:
    RecordLayout layout;
    long long base;
    VarSink* var;
};

// The bulk loops over blocks of whole records of a fixed-length value type.
// Encodes n records into out in one pass.
void encodeFixed(const Interpolate::DataRecord* records, qint64 n, const RecordLayout& layout,
                 long long base, uchar* out);
// Decodes n records into out.
void decodeFixed(const uchar* p, qint64 n, const RecordLayout& l, long long base, Interpolate::DataRecord* out);
// Appends the records whose timestamps lie in [lo, hi] to out; true when one
// above hi was met (and the rest of the block left alone).
bool appendFixed(const uchar* p, qint64 n, const RecordLayout& l, long long base, long long lo, long long hi,
                 std::vector<Interpolate::DataRecord>& out);
// The same into columns, without a QVariant per record.
bool appendFixedColumns(const uchar* p, qint64 n, const RecordLayout& l, long long base, long long lo, long long hi,
                        RawColumns& out);

} // namespace Kel::detail
