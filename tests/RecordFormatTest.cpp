#include "RecordCodec.h"
#include "RecordFile.h"
#include "TSFileStorage.h"
#include "TestSupport.h"

#include <QBuffer>
#include <QDataStream>
#include <QFile>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

using Kel::TSFileInfo;
using Kel::TSFileStorage;
using namespace Kel::test;
using Record = Kel::Interpolate::DataRecord;

const QMetaType::Type kFixedTypes[] = {QMetaType::Bool,     QMetaType::Char,      QMetaType::UChar,
                                       QMetaType::Short,    QMetaType::UShort,    QMetaType::Int,
                                       QMetaType::UInt,     QMetaType::LongLong,  QMetaType::ULongLong,
                                       QMetaType::Double,   QMetaType::Float};

// Writes and reads single records of one value type through a file of a
// chosen depth, the way the storage moves through its files.
class RecordFormat : public ::testing::Test {
protected:
    TSFileStorage storageOf(QMetaType::Type type) { return TSFileStorage(tmp.path(), type, 1 << 20); }

    QByteArray write(TSFileStorage& storage, const std::vector<Record>& records, long long base,
                     TSFileInfo::DirDepth depth)
    {
        QFile file(path);
        file.open(QIODevice::ReadWrite | QIODevice::Append);
        QDataStream stream(&file);
        stream.setVersion(QDataStream::Qt_5_13);
        for (const Record& r : records)
            storage.writeDataRecord(stream, r, base, depth);
        file.close();
        return readBytes(path);
    }

    Record readFirst(TSFileStorage& storage, long long base, TSFileInfo::DirDepth depth)
    {
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        QDataStream stream(&file);
        stream.setVersion(QDataStream::Qt_5_13);
        return storage.readCurrDataRecord(stream, base, depth);
    }

    QTemporaryDir tmp;
    QString path = tmp.filePath(QStringLiteral("07"));
};

// Offsets are big-endian and as wide as the depth allows; wider ones lose
// their high bytes without a word. A Float value takes 8 bytes, as a double.
TEST_F(RecordFormat, RecordBytesAtEveryDepthAndTheOffsetsWrap)
{
    const long long fortyDays = 3456000000LL;
    const long long minute = ms("2024-05-07T09:03:00Z");
    const struct {
        QMetaType::Type type;
        TSFileInfo::DirDepth depth;
        long long base;
        long long ts;
        QVariant value;
        const char* bytes;
        long long readBack;
    } cases[] = {
        {QMetaType::Bool, TSFileInfo::DEPTH_YEAR, 0, fortyDays, true, "00 cd fe 60 00 01", fortyDays},
        {QMetaType::Bool, TSFileInfo::DEPTH_MONTH, 0, fortyDays, true, "cd fe 60 00 01", fortyDays},
        {QMetaType::Bool, TSFileInfo::DEPTH_DAY, 0, 86399999, true, "05 26 5b ff 01", 86399999},
        {QMetaType::Bool, TSFileInfo::DEPTH_HOUR, 500, 500 + 3599999, true, "36 ee 7f 01", 500 + 3599999},
        {QMetaType::Bool, TSFileInfo::DEPTH_MINUTE, minute, minute + 70000, true, "11 70 01", minute + 4464},
        {QMetaType::Bool, TSFileInfo::DEPTH_YEAR, 0, (1LL << 40) + 5, true, "00 00 00 00 05 01", 5},
        {QMetaType::Float, TSFileInfo::DEPTH_DAY, 0, 1, 1.5f, "00 00 00 01 3f f8 00 00 00 00 00 00", 1},
    };
    for (const auto& c : cases) {
        QFile::remove(path);
        TSFileStorage s = storageOf(c.type);
        EXPECT_EQ(write(s, {{c.ts, c.value}}, c.base, c.depth).toHex(' '), QByteArray(c.bytes)) << c.bytes;
        const Record back = readFirst(s, c.base, c.depth);
        EXPECT_EQ(back.timestamp, c.readBack) << c.bytes;
        EXPECT_EQ(back.value, c.value) << c.bytes;
    }
}

// The record holds the side file's size before the value went in: the same
// value twice is written twice. A stream without a file has no side file:
// position 0, and a log line.
TEST_F(RecordFormat, VariableValuesGoToTheSideFileAtItsPreviousSize)
{
    TSFileStorage s = storageOf(QMetaType::QString);
    const QByteArray bytes =
        write(s, {{10, QStringLiteral("ab")}, {10, QStringLiteral("ab")}}, 0, TSFileInfo::DEPTH_DAY);
    // A QString QVariant at stream version 19: type id, null flag, length, UTF-16.
    const QByteArray one = QByteArray::fromHex("0000000a00000000040061 0062");
    EXPECT_EQ(readBytes(path + QStringLiteral(".var")), one + one);
    EXPECT_EQ(bytes.toHex(' '), QByteArray("00 00 00 0a 00 00 00 00 00 00 00 0a 00 00 00 0d"));

    LogCapture log;
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    QDataStream stream(&buffer);
    s.writeDataRecord(stream, {5, QStringLiteral("x")}, 0, TSFileInfo::DEPTH_DAY);
    EXPECT_EQ(buffer.data().toHex(), QByteArray("0000000500000000"));
    EXPECT_EQ(log.count(QStringLiteral("for write (writeDataRecord)")), 1);
}

TEST_F(RecordFormat, BinarySearchLeavesTheDeviceOnTheLastProbedRecord)
{
    TSFileStorage s = storageOf(QMetaType::Double);
    write(s, {{100, 1.0}, {200, 2.0}, {300, 3.0}}, 0, TSFileInfo::DEPTH_DAY);
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    QDataStream stream(&file);
    ASSERT_EQ(file.size(), 36);
    auto seek = [&](long long offset) { return s.seekToTsOffsetPos(stream, 36, offset, 4, TSFileInfo::DEPTH_DAY); };
    EXPECT_EQ(seek(200), 12);
    EXPECT_EQ(file.pos(), 12);
    // Probes 1 (200 > 150), then 0 (100 < 150): the last probe is the first record.
    EXPECT_EQ(seek(150), 0);
    EXPECT_EQ(seek(250), 24);
    EXPECT_EQ(seek(999), 24);
    EXPECT_EQ(seek(0), 0);
    file.seek(0);
    EXPECT_EQ(s.seekToTsOffsetPos(stream, 0, 5, 4, TSFileInfo::DEPTH_DAY), 0);
}

TEST_F(RecordFormat, LastRecordIsTheOneEndingAtTheEndOfTheFile)
{
    TSFileStorage s = storageOf(QMetaType::Int);
    write(s, {{1, 11}, {2, 22}}, 0, TSFileInfo::DEPTH_DAY);
    writeBytes(path, readBytes(path) + QByteArray::fromHex("0000"));
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    QDataStream stream(&file);
    const Record r = s.readLastDataRecord(stream, file.size(), 0, TSFileInfo::DEPTH_DAY);
    // The 8 bytes before the end: the tail of the second record and 2 stray bytes.
    EXPECT_EQ(r.timestamp, 0x00020000);
    EXPECT_EQ(r.value.toInt(), 0x00160000);
    EXPECT_EQ(file.pos(), file.size());
}

// The writer encodes whole blocks at once; every byte must be the one the
// single-record stream gives.
TEST_F(RecordFormat, BlockEncodingMatchesTheStreamBytesForEveryTypeAndDepth)
{
    // Values of the series' type and of others, which convert.
    const std::vector<Record> records = {{1000, QVariant(-1234.75)}, {2500, QVariant(7)},
                                         {2501, QVariant(QStringLiteral("2.5"))}, {90000, QVariant(true)},
                                         {90001, QVariant(qlonglong(1) << 40)}, {90002, QVariant(1.5f)}};
    for (QMetaType::Type type : kFixedTypes) {
        for (int depth = 0; depth < 5; ++depth) {
            QFile::remove(path);
            TSFileStorage s = storageOf(type);
            const QByteArray streamed = write(s, records, 1000, TSFileInfo::DirDepth(depth));
            const Kel::detail::RecordLayout layout(type, depth);
            QByteArray block(layout.stride * qsizetype(records.size()), '\0');
            Kel::detail::encodeFixed(records.data(), qint64(records.size()), layout, 1000,
                                     reinterpret_cast<uchar*>(block.data()));
            EXPECT_EQ(block.toHex(), streamed.toHex()) << "type " << type << " depth " << depth;
        }
    }
}

// The means read doubles straight from variants and from the bytes of a
// field; both must give what the variant's toDouble gives, bit for bit.
TEST_F(RecordFormat, FastDoublesAreWhatTheVariantsGive)
{
    const QVariant values[] = {QVariant(2.75), QVariant(-0.0), QVariant(7), QVariant(qlonglong(-3)),
                               QVariant(QStringLiteral("2.5")), QVariant(QStringLiteral("x")), QVariant(true),
                               QVariant(1.5f), QVariant(), QVariant(QMetaType::fromType<double>())};
    for (const QVariant& v : values) {
        const double expected = v.toDouble();
        const double got = Kel::detail::doubleOf(v);
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << v.toString().toStdString();
    }
    EXPECT_TRUE(std::isnan(Kel::detail::doubleOf(QVariant(std::numeric_limits<double>::quiet_NaN()))));

    // Sign bits, NaN and infinity, a double beyond any float, small values.
    const char* const fields[] = {"0000000000000000", "ffffffffffffffff", "8000000000000001",
                                  "7ff8000000000000", "fff0000000000000", "47f0000000000000",
                                  "3ff8000000000000", "0102030405060708", "7f7f7f7f7f7f7f7f"};
    for (QMetaType::Type type : kFixedTypes) {
        for (const char* hex : fields) {
            const QByteArray field = QByteArray::fromHex(hex);
            const auto* p = reinterpret_cast<const uchar*>(field.constData());
            const double expected = Kel::detail::decodeValue(p, type).toDouble();
            const double got = Kel::detail::decodeAsDouble(p, type);
            EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << "type " << type << " field " << hex;
        }
    }
}

TEST_F(RecordFormat, SideFileValuesAreFoundInAnyOrderAndAfterTheFileGrew)
{
    const QString var = path + QStringLiteral(".var");
    const auto append = [&](const QStringList& values) {
        Kel::detail::VarFileWriter writer(var);
        std::vector<qint32> positions;
        for (const QString& v : values)
            positions.push_back(writer.append(QVariant(v)));
        writer.flush();
        return positions;
    };
    const std::vector<qint32> first = append({QStringLiteral("a"), QStringLiteral("bb"), QStringLiteral("ccc")});

    Kel::detail::VarFileReader reader(var);
    EXPECT_EQ(reader.valueAt(first[0]).toString(), QStringLiteral("a"));
    EXPECT_EQ(reader.valueAt(first[2]).toString(), QStringLiteral("ccc"));
    EXPECT_EQ(reader.valueAt(first[1]).toString(), QStringLiteral("bb"));

    // A writer appends while the reader is open.
    const std::vector<qint32> later = append({QStringLiteral("dddd")});
    EXPECT_EQ(reader.valueAt(later[0]).toString(), QStringLiteral("dddd"));
    EXPECT_EQ(reader.valueAt(first[0]).toString(), QStringLiteral("a"));
    EXPECT_FALSE(reader.valueAt(later[0] + 1000).isValid());
    EXPECT_FALSE(reader.valueAt(-1).isValid());
}
