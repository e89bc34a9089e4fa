#include "StorageFixture.h"
#include "TSFileQueries.h"

#include <QDir>

using namespace Kel::test;
using Kel::TSFileStorage;

class Lookups : public StorageFixture {
protected:
    // findDataRecord at ts from `from` to `to` lands where the format's
    // stream search lands in the year file 2024.
    void expectLookupsLandAsTheStreamSearch(long long from, long long to, long long step)
    {
        QFile f(file(QStringLiteral("2024")));
        ASSERT_TRUE(f.open(QIODevice::ReadOnly));
        QDataStream stream(&f);
        const long long base = ms("2024-01-01T00:00:00Z");
        for (long long ts = from; ts <= to; ts += step) {
            SCOPED_TRACE(ts - t0);
            stream.device()->seek(0);
            series->seekToTsOffsetPos(stream, f.size(), ts - base, 5, Kel::TSFileInfo::DEPTH_YEAR);
            const Record probed = series->readCurrDataRecord(stream, base, Kel::TSFileInfo::DEPTH_YEAR);
            Record found;
            EXPECT_EQ(series->findDataRecord(ts, found), probed.timestamp == ts);
            EXPECT_EQ(found.timestamp, probed.timestamp);
            EXPECT_EQ(found.value, probed.value);
        }
    }

    const long long t0 = ms("2024-05-07T00:00:00Z");
};

TEST_F(Lookups, EmptySeriesFindsNothing)
{
    Record rec;
    EXPECT_FALSE(series->getFirstDataRecord(rec));
    EXPECT_FALSE(series->getLastDataRecord(rec));
    EXPECT_FALSE(series->findDataRecord(t0, rec));
    EXPECT_FALSE(series->findPrevDataRecord(t0, rec));
    long long start = 0, end = t0;
    bool first = true, last = true;
    EXPECT_FALSE(series->adjustTimestamps(series.get(), start, end, first, last));
    EXPECT_EQ(start, 0);
    EXPECT_FALSE(first);
}

// An empty storage file answers every lookup with what a read past its end
// gives: its base, and the value of zero bytes (for text, the side file's
// value at position 0).
TEST_F(Lookups, EmptyFileAnswersWithARecordReadPastItsEnd)
{
    const long long base = ms("2024-01-01T00:00:00Z");
    for (const auto& [type, zero] : {std::pair{QMetaType::Double, QVariant(0.0)},
                                     std::pair{QMetaType::Int, QVariant(0)},
                                     std::pair{QMetaType::QString, QVariant(QStringLiteral("v0"))}}) {
        SCOPED_TRACE(QMetaType(type).name());
        useSeries(type);
        if (type == QMetaType::QString) {  // a side file whose first value is "v0"
            ASSERT_TRUE(write(hourly(0, 1, type)));
            writeBytes(file(QStringLiteral("2024")), QByteArray());
        } else {
            touch(file(QStringLiteral("2024")));
        }
        Record first, last, found, prev;
        ASSERT_TRUE(series->getFirstDataRecord(first));
        ASSERT_TRUE(series->getLastDataRecord(last));
        EXPECT_FALSE(series->findDataRecord(t0, found));
        ASSERT_TRUE(series->findPrevDataRecord(t0, prev));
        for (const Record& r : {first, last, found, prev}) {
            EXPECT_EQ(r.timestamp, base);
            EXPECT_EQ(r.value, zero);
        }
        QDir(tmp.path()).removeRecursively();
    }
}

TEST_F(Lookups, PointLookupsFollowTheProbeOfTheSearch)
{
    write({{t0 + 4000, 4.0}, {t0 + 1000, 1.0}, {t0 + 3000, 3.0}, {t0 + 2000, 2.0}});
    Record rec;
    ASSERT_TRUE(series->getFirstDataRecord(rec));
    EXPECT_EQ(rec.timestamp, t0 + 1000);
    ASSERT_TRUE(series->getLastDataRecord(rec));
    EXPECT_EQ(rec.value.toDouble(), 4.0);
    ASSERT_TRUE(series->findDataRecord(t0 + 2000, rec));
    EXPECT_EQ(rec.value.toDouble(), 2.0);
    // A miss leaves the record the search ended on.
    EXPECT_FALSE(series->findDataRecord(t0 + 1500, rec));
    EXPECT_TRUE(rec.timestamp == t0 + 1000 || rec.timestamp == t0 + 2000);

    // The search for t-1 probes index 2 first. Probes 2 (3000 > 2999), then
    // 1 (2000 < 2999): ends below, the record before.
    ASSERT_TRUE(series->findPrevDataRecord(t0 + 3000, rec));
    EXPECT_EQ(rec.timestamp, t0 + 2000);
    // Probes 2, 1 (2000 > 1999), then 0 (1000 < 1999): ends below.
    ASSERT_TRUE(series->findPrevDataRecord(t0 + 2000, rec));
    EXPECT_EQ(rec.timestamp, t0 + 1000);
    // Probes 2 (3000 < 3500), then 3 (4000 > 3500): lands on the later record,
    // whose predecessor lies below t and is not taken.
    ASSERT_TRUE(series->findPrevDataRecord(t0 + 3501, rec));
    EXPECT_EQ(rec.timestamp, t0 + 4000);
    // The first record of the file is returned even though it lies after ts.
    ASSERT_TRUE(series->findPrevDataRecord(t0 + 500, rec));
    EXPECT_EQ(rec.timestamp, t0 + 1000);
}

// The last probes of a search are answered from one block read of what is
// left of the range; in a file whose records are out of order they must
// still be the probes' own answers, as the format's stream search gives them.
TEST_F(Lookups, PointLookupsInAnUnorderedFileLandWhereTheStreamSearchLands)
{
    Records records;
    for (int i = 0; i < 3000; ++i)
        records.push_back({t0 + i * 1000LL, double(i)});
    ASSERT_TRUE(write(records));
    const QString path = file(QStringLiteral("2024"));
    QByteArray bytes = readBytes(path);
    const int length = 13;
    ASSERT_EQ(bytes.size(), 3000 * length);
    // Swap records far apart and in the last block of many searches.
    for (const auto& [a, b] : {std::pair{10, 2900}, {1500, 1510}, {700, 2200}, {1499, 1700}})
        for (int k = 0; k < length; ++k)
            std::swap(bytes[a * length + k], bytes[b * length + k]);
    writeBytes(path, bytes);
    expectLookupsLandAsTheStreamSearch(t0 - 500, t0 + 3001000, 997);
}

// A Float record takes 5 + 8 bytes in a year file, but lookups and counts
// step by the declared 5 + 4: they read timestamps made of other bytes, as
// the format always has. A read from the start of a file steps by what it
// reads, and gets every record.
TEST_F(Lookups, FloatSeriesLookupsAndCountsStepByTheDeclaredRecordLength)
{
    useSeries(QMetaType::Float);
    const long long base2023 = ms("2023-01-01T00:00:00Z");
    const long long base = ms("2024-01-01T00:00:00Z");
    ASSERT_TRUE(write({{base2023, 0.5f}, {base2023 + 1000, 0.5f}, {base2023 + 2000, 0.5f}}));
    ASSERT_TRUE(write({{t0, 1.5f}, {t0 + 1000, 2.5f}, {t0 + 2000, 3.5f}, {t0 + 3000, 4.5f}}));
    const QByteArray bytes = readBytes(file(QStringLiteral("2024")));
    ASSERT_EQ(bytes.size(), 4 * 13);

    // The last record is read 9 bytes before the end: the last byte of the
    // last offset and the first four of its value (4.5 = 40 12 00 00 ...) as
    // the offset, and a value cut off by the end.
    Record last;
    ASSERT_TRUE(series->getLastDataRecord(last));
    const long long lowByte = (t0 + 3000 - base) & 0xff;
    EXPECT_EQ(last.timestamp, base + (lowByte << 32 | 0x40120000LL));
    EXPECT_EQ(last.value, QVariant(0.0f));

    // The 2023 file lies wholly inside the range and counts 39 / 9 records.
    EXPECT_EQ(series->getCount({}, {}, base2023, ms("2024-01-01T00:00:00Z"), true, false, false), 4);

    // Each lookup lands where the format's stream operations land.
    expectLookupsLandAsTheStreamSearch(t0 - 500, t0 + 3500, 250);
    Record found;
    EXPECT_FALSE(series->findDataRecord(t0 + 1000, found));  // stored, and not found

    // A read from before the file's first record starts at its byte 0.
    EXPECT_TRUE(sameRecords(read(base2023 - 1, t0 + 2000),
                            {{base2023, 0.5f}, {base2023 + 1000, 0.5f}, {base2023 + 2000, 0.5f}, {t0, 1.5f},
                             {t0 + 1000, 2.5f}, {t0 + 2000, 3.5f}}));
}

TEST_F(Lookups, PreviousRecordComesFromAnEarlierFileWhenTheTimeHasNone)
{
    useSeries(QMetaType::Double, 30);
    write({{t0, 1.0}, {t0 + 60000, 2.0}, {t0 + 120000, 3.0}});  // 39 bytes: split into months
    ASSERT_TRUE(QFileInfo(file(QStringLiteral("2024"))).isDir());
    Record rec;
    ASSERT_TRUE(series->findPrevDataRecord(ms("2024-09-01T00:00:00Z"), rec));
    EXPECT_EQ(rec.timestamp, t0 + 120000);
    EXPECT_EQ(rec.value.toDouble(), 3.0);
}

TEST_F(Lookups, RangeIsResolvedAndClampedToTheSeries)
{
    write({{t0 + 1000, 1.0}, {t0 + 5000, 5.0}});
    long long start = TSFileStorage::TS_FIRST_RECORD, end = TSFileStorage::TS_LAST_RECORD;
    bool coversFirst = false, coversLast = false;
    EXPECT_TRUE(series->adjustTimestamps(series.get(), start, end, coversFirst, coversLast));
    EXPECT_EQ(start, t0 + 1000);
    EXPECT_EQ(end, t0 + 5000);
    EXPECT_TRUE(coversFirst);
    EXPECT_TRUE(coversLast);

    start = 0;
    end = ms("2100-01-01T00:00:00Z");
    EXPECT_TRUE(series->adjustTimestamps(series.get(), start, end, coversFirst, coversLast));
    EXPECT_EQ(start, t0 + 1000);
    EXPECT_EQ(end, t0 + 5000);

    start = t0 + 2000;
    end = t0 + 3000;
    EXPECT_TRUE(series->adjustTimestamps(series.get(), start, end, coversFirst, coversLast));
    EXPECT_FALSE(coversFirst);
    EXPECT_FALSE(coversLast);

    start = t0 + 9000;
    end = TSFileStorage::TS_NOW;
    EXPECT_FALSE(series->adjustTimestamps(series.get(), start, end, coversFirst, coversLast));
    EXPECT_EQ(end, t0 + 5000);
}

// The exact lookup beside findPrevDataRecord: the last record stamped before
// the instant, from an earlier file where the instant's own file starts after
// it, for Float by the bytes each record takes.
TEST_F(Lookups, LastRecordBeforeIsExactAcrossFilesAndForFloat)
{
    for (QMetaType::Type type : {QMetaType::Double, QMetaType::Float}) {
        SCOPED_TRACE(QMetaType(type).name());
        useSeries(type, 30);  // split into month files
        const Records records = {{t0, 1.5f}, {t0 + 60000, 2.5f}, {ms("2024-06-10T00:00:00Z"), 3.5f}};
        ASSERT_TRUE(write(records));
        Record rec;
        EXPECT_FALSE(Kel::lastRecordBefore(*series, t0, rec));
        ASSERT_TRUE(Kel::lastRecordBefore(*series, t0 + 60000, rec));
        EXPECT_EQ(rec.timestamp, t0);
        // June's file starts after the instant: findPrevDataRecord answers
        // with its first record, the exact lookup with May's last.
        const long long june5 = ms("2024-06-05T00:00:00Z");
        ASSERT_TRUE(Kel::lastRecordBefore(*series, june5, rec));
        EXPECT_EQ(rec.timestamp, t0 + 60000);
        EXPECT_EQ(rec.value.toDouble(), 2.5);
        ASSERT_TRUE(series->findPrevDataRecord(june5, rec));
        EXPECT_EQ(rec.timestamp, records[2].timestamp);
        QDir(tmp.path()).removeRecursively();
    }
}
