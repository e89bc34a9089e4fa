// The record codec: the value-type tables, one value field encoded and
// decoded, and the bulk loops over blocks of whole records that reads,
// writes and rewrites run. Nothing here touches a file.

#include "RecordCodec.h"

#include <QtEndian>

#include <new>

namespace Kel::detail {

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

namespace {

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

// Decoding stays out of line: inlined next to the read call, the compiler
// kept loop state in memory and the loop ran several times slower.
__attribute__((noinline)) void decodeFixed(const uchar* p, qint64 n, const RecordLayout& l,
                                           long long base, Interpolate::DataRecord* out)
{
    for (qint64 i = 0; i < n; ++i, p += l.stride) {
        out[i].timestamp = decodeTimestamp(p, l.offsetWidth, base);
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
        const long long ts = decodeTimestamp(p, l.offsetWidth, base);
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

namespace {

// A whole-number or bool value field as 64 bits.
long long decodeWhole(const uchar* p, QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Bool: return p[0] != 0 ? 1 : 0;
    case QMetaType::Char: return qint8(p[0]);
    case QMetaType::UChar: return p[0];
    case QMetaType::Short: return qint16(qFromBigEndian<quint16>(p));
    case QMetaType::UShort: return qFromBigEndian<quint16>(p);
    case QMetaType::Int: return qint32(qFromBigEndian<quint32>(p));
    case QMetaType::UInt: return qFromBigEndian<quint32>(p);
    default: return qint64(qFromBigEndian<quint64>(p));
    }
}

template <int Width, typename Take>
bool columnLoop(const uchar* p, qint64 n, int stride, long long base, long long lo, long long hi,
                std::vector<long long>& times, Take take)
{
    for (qint64 i = 0; i < n; ++i, p += stride) {
        const long long ts = decodeTimestamp(p, Width, base);
        if (ts > hi)
            return true;
        if (ts < lo)
            continue;
        times.push_back(ts);
        take(p + Width);
    }
    return false;
}

} // namespace

bool appendFixedColumns(const uchar* p, qint64 n, const RecordLayout& l, long long base, long long lo, long long hi,
                        RawColumns& out)
{
    const QMetaType::Type type = l.type;
    bool above = false;
    withOffsetWidth(l.offsetWidth, [&](auto width) {
        constexpr int w = decltype(width)::value;
        if (type == QMetaType::Double)
            above = columnLoop<w>(p, n, l.stride, base, lo, hi, out.timestamps,
                                  [&out](const uchar* f) { out.reals.push_back(decodeDouble(f)); });
        else if (type == QMetaType::Float)
            above = columnLoop<w>(p, n, l.stride, base, lo, hi, out.timestamps,
                                  [&out](const uchar* f) { out.reals.push_back(double(narrowToFloat(decodeDouble(f)))); });
        else
            above = columnLoop<w>(p, n, l.stride, base, lo, hi, out.timestamps,
                                  [&out, type](const uchar* f) { out.wholes.push_back(decodeWhole(f, type)); });
    });
    return above;
}

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

} // namespace Kel::detail
