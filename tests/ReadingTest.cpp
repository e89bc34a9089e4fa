#include "EngineHarness.h"
#include "StorageFixture.h"
#include "TSFileColumns.h"

#include <QFile>
#include <QTemporaryDir>

#include <cmath>

#include <cstring>
#include <limits>

using namespace Kel::test;
using Kel::TSFileStorage;

// A series of one record a minute over three days, split into day files.
class Reading : public StorageFixture {
protected:
    void SetUp() override
    {
        useSeries(QMetaType::Double, 20000);
        for (int day = 0; day < 3; ++day) {
            Records batch;
            for (int m = 0; m < 1440; ++m)
                batch.push_back({t0 + (day * 1440 + m) * 60000LL, double(day * 1440 + m)});
            write(batch);
        }
    }
    const long long t0 = ms("2024-05-07T00:00:00Z");
    const long long last = t0 + (3 * 1440 - 1) * 60000LL;
};

TEST_F(Reading, EveryRangeReadsAndCountsExactlyItsRecordsAndALimitStopsTheRead)
{
    // Inclusive at both ends; ends inside a file, at a file's last record and
    // between records, over none, one and two file boundaries; none at all.
    ASSERT_TRUE(QFileInfo(file(QStringLiteral("2024/05/08"))).isFile());
    const long long minute = 60000;
    const std::pair<long long, long long> ranges[] = {
        {0, ms("2100-01-01T00:00:00Z")},                 {TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD},
        {t0 + 1439 * minute, t0 + 1441 * minute},        {t0 + 1439 * minute + 1, t0 + 1440 * minute - 1},
        {t0 + 1440 * minute, t0 + 1440 * minute},        {t0 + 600 * minute, t0 + 1439 * minute},
        {t0 + 600 * minute + 1, t0 + 2000 * minute - 1}, {t0, t0 + 2879 * minute + 30000},
        {t0 + 100 * minute, last},                       {last + 1, ms("2100-01-01T00:00:00Z")},
    };
    for (const auto& [from, to] : ranges) {
        const long long first = from < t0 ? 0 : (from - t0 + minute - 1) / minute;
        const long long end = to < 0 || to > last ? 3 * 1440 - 1 : (to - t0) / minute;
        const Records got = read(from, to);
        ASSERT_EQ(got.size(), size_t(std::max(0LL, end - first + 1))) << from << ".." << to;
        for (size_t i = 0; i < got.size(); ++i) {
            ASSERT_EQ(got[i].timestamp, t0 + (first + qint64(i)) * minute) << from << ".." << to;
            ASSERT_EQ(got[i].value.toDouble(), double(first + qint64(i)));
        }
        EXPECT_EQ(count(from, to), qint64(got.size())) << from << ".." << to;
    }
    // Asked for neither its own records nor a companion's, a count is 0.
    EXPECT_EQ(series->getCount({}, {}, 0, last, false, false, false), 0);

    // A limit stops the read and reports the count.
    Records out;
    int limit = 5;
    series->readDataRecords({}, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD, out, false, limit);
    EXPECT_EQ(out.size(), 5u);
    EXPECT_EQ(limit, 5);

    // The companions' reads go on with the same counter: the "P" read takes
    // 5 as its limit, finds 2 back-filled records, and leaves the count at 0.
    ASSERT_TRUE(write({{t0 + 30000, -1.0}, {t0 + 90000, -2.0}}, true));
    Records all, backfilled;
    int shared = 5;
    series->readDataRecords({}, {}, 0, ms("2100-01-01T00:00:00Z"), all, false, shared, &backfilled);
    EXPECT_EQ(all.size(), 5u);
    EXPECT_EQ(backfilled.size(), 2u);
    EXPECT_EQ(shared, 0);
}

// The "P" log of one back-fill holds its first timestamp at the write time
// and the others side by side one ms later. A read from that later instant
// starts where the search probes, the middle one of the four, and passes
// over the one before it.
// A raw read makes room in the output once, for what the raw count says it
// will add: an empty vector ends as large as its records, not doubled past
// them, whether the range spans files or lies in one.
TEST_F(Reading, RawReadIntoAnEmptyVectorTakesRoomForItsRecordsOnly)
{
    for (const auto& [start, end] : {std::pair{t0, t0 + 3 * 1440 * 60000LL}, std::pair{t0 + 600000, t0 + 1200000}}) {
        Records out;
        int noLimit = 0;
        ASSERT_TRUE(series->readDataRecords({}, {}, start, end, out, false, noLimit));
        EXPECT_GT(out.size(), 1u);
        EXPECT_EQ(out.capacity(), out.size());
    }
}

// The bounds of a read are searched first where the timestamps' spread puts
// them; records crowded into one part of a file put the guess far off, and
// the search must still land exactly.
TEST_F(Reading, RangesOfUnevenlySpacedRecordsReadAndCountExactly)
{
    useSeries(QMetaType::Double);
    const long long t = ms("2025-03-01T00:00:00Z");
    Records records;
    for (int i = 0; i < 1000; ++i)
        records.push_back({t + i, double(i)});
    for (int i = 0; i < 1000; ++i)
        records.push_back({t + 3600000 + i * 60000LL, double(1000 + i)});
    ASSERT_TRUE(write(records));
    for (const auto& [lo, hi] : {std::pair{t + 500, t + 1500}, std::pair{t + 3630000, t + 5400000},
                                 std::pair{t + 999, t + 3600000}, std::pair{t - 5, t + 3}, std::pair{t + 2000, t + 3000}}) {
        Records expected;
        for (const Record& r : records)
            if (r.timestamp >= lo && r.timestamp <= hi)
                expected.push_back(r);
        EXPECT_TRUE(sameRecords(read(lo, hi), expected)) << lo - t << " " << hi - t;
        EXPECT_EQ(series->getCount({}, {}, lo, hi, true, false, false), (long long)expected.size());
    }
}

TEST_F(Reading, BackfillLogIsReadFromWhereTheSearchProbes)
{
    Records again;
    for (int m = 1; m <= 5; ++m)
        again.push_back({t0 + m * 60000LL, -double(m)});
    ASSERT_TRUE(write(again, true));
    TSFileStorage log(tmp.path() + QStringLiteral("/DP/"), QMetaType::LongLong, 1 << 30);
    Record first;
    ASSERT_TRUE(log.getFirstDataRecord(first));

    Records none, backfilled;
    int count = 0;
    series->readDataRecords({}, {}, first.timestamp + 1, ms("2100-01-01T00:00:00Z"), none, false, count,
                            &backfilled);
    EXPECT_EQ(timestamps(backfilled), (std::vector<long long>{t0 + 180000, t0 + 240000, t0 + 300000}));
}

TEST_F(Reading, MissingFilesAreSkippedAndTheWalkGoesOn)
{
    QFile::remove(file(QStringLiteral("2024/05/08")));
    const Records all = read(0, ms("2100-01-01T00:00:00Z"));
    EXPECT_EQ(all.size(), 2u * 1440);
    EXPECT_EQ(all[1440].timestamp, ms("2024-05-09T00:00:00Z"));
}

// A raw read builds its values straight in the output, a lookup decodes one
// record: both must give each type's values widened alike, and converted as
// they were written. (Float lookups land inside records; see LookupsTest.)
TEST_F(Reading, RawReadsAndLookupsGiveEachTypeItsWidenedValues)
{
    const struct {
        QMetaType::Type type;
        QVariant written;
        QVariant read;  // of the type the reader gets
    } cases[] = {
        {QMetaType::Bool, true, true},
        {QMetaType::Char, -56, -56},
        {QMetaType::UChar, 200, 200},
        {QMetaType::Short, -1, -1},
        {QMetaType::UShort, 65535, 65535},
        {QMetaType::Int, QStringLiteral("letters"), 0},
        {QMetaType::UInt, 4294967295u, 4294967295u},
        {QMetaType::LongLong, qlonglong(-5), qlonglong(-5)},
        {QMetaType::ULongLong, qulonglong(18446744073709551615ULL), qulonglong(18446744073709551615ULL)},
        {QMetaType::Double, 20.25, 20.25},
        {QMetaType::QString, QStringLiteral("text"), QStringLiteral("text")},
    };
    for (const auto& c : cases) {
        const char* name = QMetaType(c.type).name();
        QTemporaryDir dir;
        TSFileStorage typed(dir.path(), c.type, 1 << 30);
        typed.writeDataRecords({{t0, c.written}, {t0 + 1000, QVariant(-2)}, {t0 + 2000, QVariant(200)},
                                {t0 + 3000, QVariant(1.5)}},
                               false, false);
        const Records back = readAll(typed);
        ASSERT_EQ(back.size(), 4u) << name;
        EXPECT_EQ(back[0].value.typeId(), c.read.typeId()) << name;
        EXPECT_EQ(back[0].value, c.read) << name;
        for (const Record& r : back) {
            Record one;
            ASSERT_TRUE(typed.findDataRecord(r.timestamp, one)) << name;
            EXPECT_EQ(r.value.typeId(), one.value.typeId()) << name;
            EXPECT_EQ(r.value, one.value) << name;
        }
    }
}

// The columns of a raw read hold what the records of the same read hold,
// for every fixed-length type, over ranges inside and across files, at the
// storage's anchors, in a Float file read from inside a record, and up to a
// damaged record.
TEST_F(Reading, ColumnsHoldTheRecordsOfTheSameRawRead)
{
    const auto expectSameAsRecords = [](TSFileStorage& s, long long from, long long to, const char* what) {
        Records records;
        int count = 0;
        ASSERT_TRUE(s.readDataRecords({}, {}, from, to, records, false, count)) << what;
        Kel::RawColumns columns;
        ASSERT_TRUE(Kel::readRawColumns(s, from, to, columns)) << what;
        ASSERT_EQ(columns.timestamps.size(), records.size()) << what;
        const bool real = s.valueType == QMetaType::Double || s.valueType == QMetaType::Float;
        ASSERT_EQ((real ? columns.reals.size() : columns.wholes.size()), records.size()) << what;
        for (size_t i = 0; i < records.size(); ++i) {
            EXPECT_EQ(columns.timestamps[i], records[i].timestamp) << what << " " << i;
            if (real && !std::isnan(records[i].value.toDouble())) {
                EXPECT_EQ(columns.reals[i], records[i].value.toDouble()) << what << " " << i;
            } else if (!real) {
                EXPECT_EQ(columns.wholes[i], s.valueType == QMetaType::ULongLong ? (long long)records[i].value.toULongLong()
                                                                                  : records[i].value.toLongLong())
                    << what << " " << i;
            }
        }
    };
    for (const auto& [from, to] : std::vector<std::pair<long long, long long>>{
             {t0, last}, {t0 + 90000, t0 + 1440 * 60000LL + 30000}, {t0 - 5000, t0}, {last + 1, last + 9},
             {TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD}})
        expectSameAsRecords(*series, from, to, "double");

    for (const QMetaType::Type type : {QMetaType::Bool, QMetaType::Char, QMetaType::UChar, QMetaType::Short,
                                       QMetaType::UShort, QMetaType::Int, QMetaType::UInt, QMetaType::LongLong,
                                       QMetaType::ULongLong, QMetaType::Float}) {
        QTemporaryDir dir;
        TSFileStorage typed(dir.path(), type, 2000);
        Records batch;
        for (int i = 0; i < 600; ++i)
            batch.push_back({t0 + i * 7919LL, QVariant(qlonglong(i * 977 % 251) - 125)});
        typed.writeDataRecords(batch, false, false);
        expectSameAsRecords(typed, t0, t0 + 600 * 7919LL, QMetaType(type).name());
        expectSameAsRecords(typed, t0 + 100 * 7919LL + 3, t0 + 400 * 7919LL, QMetaType(type).name());
    }

    // A damaged record ends the columns where it ends the records.
    const QString day2 = file(QStringLiteral("2024/05/08"));
    QFile file(day2);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.seek(12 * 100);
    file.write(QByteArray::fromHex("FFFFFFFF"));
    file.close();
    expectSameAsRecords(*series, t0, last, "damaged");

    QTemporaryDir textDir;
    TSFileStorage text(textDir.path(), QMetaType::QString, 2000);
    Kel::RawColumns none;
    EXPECT_FALSE(Kel::readRawColumns(text, t0, last, none));
}

// Records around an empty hour, read condensed: the reader must feed the
// record before the range and the one after it; a count of intervals must
// agree with the read.
class CondensedReading : public StorageFixture {};

TEST_F(CondensedReading, UsesTheRecordsAroundTheRange)
{
    write({at("09:50", 3), at("10:15", 5), at("10:40", 7), at("12:20", 9), at("13:10", 4)});
    const std::pair<const char*, const char*> cases[] = {
        {"prevNextLinearFill", "11:00=7.4 12:00=8.6 13:00=5"},
        {"next", "11:00=9 13:00=4"},
        {"prevFill", "11:00=7 12:00=7 13:00=9"},
        {"prevNext", "11:00=7 11:00:00.001=9 13:00=9 13:00:00.001=4"},
        {"countFill", "11:00=2 12:00=0 13:00=1"},
        {"count", "11:00=2 13:00=1"},
        {"meanA", "11:00=6 13:00=9"},
    };
    const long long from = ms("2024-05-07T11:00:00Z"), to = ms("2024-05-07T13:00:00Z");
    for (const auto& [method, expected] : cases) {
        const Records got = read(from, to, QString::fromLatin1(method), 3600);
        EXPECT_EQ(show(got), expected) << method;
        EXPECT_EQ(series->getCount(request(method, 3600), {}, from, to, true, false, false), qint64(got.size()))
            << method;
    }
}

// The record before a condensed read's range is the one findPrevDataRecord
// answers: the search in the file that holds the instant probes 2024-03-01,
// after the range start, and the earlier file's 2023-06-01 is never asked.
// The engine meets 2024-03-01 as the previous record and again in the range.
TEST_F(CondensedReading, RecordBeforeTheRangeIsTheOneTheLookupBeforeItAnswers)
{
    const Records stored = {{ms("2023-06-01T00:00:00Z"), 0.0},
                            {ms("2024-03-01T00:00:00Z"), 10.0},
                            {ms("2024-03-02T00:00:00Z"), 20.0}};
    write(stored);
    const long long from = ms("2024-01-02T12:00:00Z"), to = ms("2024-03-05T12:00:00Z");
    Record before;
    ASSERT_TRUE(series->findPrevDataRecord(from, before));
    EXPECT_EQ(before.timestamp, stored[1].timestamp);

    Read asTheLookupAnswers{request("diffMeanA", -1), {}, from, to};
    asTheLookupAnswers.previous = before;
    Read exactlyBefore{request("diffMeanA", -1), {}, from, to};
    const std::string expected = show(runRead(asTheLookupAnswers, stored));
    EXPECT_NE(expected, show(runRead(exactlyBefore, stored)));
    EXPECT_EQ(show(read(from, to, QStringLiteral("diffMeanA"), -1)), expected);
}

// Inside an interval every method takes the records from the file's blocks
// as plain runs; every result must be the one the engine gives when it is
// handed each record whole, to the bit and the value's type.
class PlainValueReading : public StorageFixture {
protected:
    // Three days of irregular records written a day at a time, so that the
    // tree splits into days: small values with repeats, zeros of both signs
    // and NaN on the first and last day; a meter counter on the second that
    // rises, jitters back, wraps at 1,000,000 and is reset to 0.
    void writeSeries(QMetaType::Type type)
    {
        useSeries(type, 100000);
        for (int day = 0; day < 3; ++day) {
            Records batch;
            for (long long t = t0 + day * 86400000LL; t < t0 + (day + 1) * 86400000LL; t += 7919)
                batch.push_back({t, QVariant(valueAt(day, t / 7919, type == QMetaType::Double))});
            if (type != QMetaType::Double)
                for (Record& r : batch)
                    r.value.convert(QMetaType(type));
            write(batch);
            all.insert(all.end(), batch.begin(), batch.end());
        }
    }

    static double valueAt(int day, long long i, bool withNaN)
    {
        if (day == 1) {
            const long long rise = (i % 3000) * 700;
            if (i % 3000 == 2000)
                return 0.0;
            return double((990000 + rise) % 1000000) - (i % 13 == 0 ? 3.0 : 0.0);
        }
        if (withNaN && i % 23 == 5)
            return std::numeric_limits<double>::quiet_NaN();
        if (i % 29 == 3)
            return -0.0;
        return double(i % 11) - 3.0;
    }

    static bool sameValue(const QVariant& a, const QVariant& b)
    {
        if (a.metaType() != b.metaType())
            return false;
        if (a.metaType().id() != QMetaType::Double)
            return a == b;
        const double x = a.toDouble();
        const double y = b.toDouble();
        return std::memcmp(&x, &y, sizeof x) == 0;
    }

    void expectSameAsRecordByRecord(const InterpolateParam& param, const std::vector<InterpolateParam>& chain,
                                    long long start, long long end, bool label, int limit)
    {
        Read read{param, chain, start, end, label, false, limit};
        read.targetType = series->valueType;
        const Records expected = runRead(read, all);

        Records got;
        int count = limit;
        ASSERT_TRUE(series->readDataRecords(param, chain, start, end, got, label, count));
        const std::string what = param.method.toStdString() + " " + std::to_string(param.interval);
        ASSERT_EQ(got.size(), expected.size()) << what;
        for (size_t i = 0; i < got.size(); ++i) {
            ASSERT_EQ(got[i].timestamp, expected[i].timestamp) << what << " result " << i;
            ASSERT_TRUE(sameValue(got[i].value, expected[i].value))
                << what << " result " << i << ": " << got[i].value.toString().toStdString() << " vs "
                << expected[i].value.toString().toStdString();
        }
        EXPECT_EQ(count, read.resultCount) << what;

        // Counts take no label and no limit.
        read.countOnly = true;
        read.labelAtIntervalStart = false;
        read.resultCount = 0;
        const Records counted = runRead(read, all);
        EXPECT_EQ(series->getCount(param, chain, start, end, true, false, false), counted.at(0).value.toLongLong())
            << what;
    }

    const long long t0 = ms("2024-05-07T00:00:00Z");
    const std::pair<long long, long long> ranges[2] = {
        {TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD},
        {t0 + 12345, t0 + 2 * 86400000LL - 777},
    };
    Records all;
};

TEST_F(PlainValueReading, EveryMethodEqualsTheRecordByRecordResults)
{
    writeSeries(QMetaType::Double);
    const char* methods[] = {
        "prevNext", "prevNextLinear", "prev", "prevFill", "next", "nextLinearFill", "minMax", "minMaxAverage",
        "minFillNull", "max", "maxAlign", "sum", "sumLinear", "sumFill", "meanA", "meanG", "meanH", "meanS",
        "median", "mode", "modeFill", "count", "linearFill", "diff", "diffSum", "diffSumLinear", "diffMax",
        "diffCtrUpCleaned", "diffCtrUpCleanedSum", "diffCtrUpCleanedMedian", "diffCtrUpCleanedPrev"};
    for (const char* method : methods)
        for (long long interval : {3600LL, 7LL, -1LL})
            for (const auto& [start, end] : ranges)
                expectSameAsRecordByRecord(request(method, interval, true), {}, start, end, false, 0);

    // Labels and limits change only what is delivered.
    for (const char* method : {"meanA", "countFill", "minMax", "sumLinear", "diffCtrUpCleaned", "mode"})
        for (bool label : {false, true})
            expectSameAsRecordByRecord(request(method, 900, false), {}, ranges[1].first, ranges[1].second, label, 7);

    // In a chain only the first engine takes the records.
    expectSameAsRecordByRecord(request("meanS", 3600), {request("meanA", 600)}, t0 + 999, t0 + 86400000LL, false, 0);
    expectSameAsRecordByRecord(request("meanA", 3600), {request("diff", 600)}, t0 + 999, t0 + 86400000LL, false, 0);
    expectSameAsRecordByRecord(request("sum", 3600), {request("diffCtrUpCleanedMax", 60)}, t0, t0 + 3 * 86400000LL,
                               false, 0);
}

// Records kept whole (the last, the extremes) keep the series' own type.
TEST_F(PlainValueReading, IntegerSeriesGiveTheRecordByRecordResults)
{
    writeSeries(QMetaType::LongLong);
    for (const char* method : {"prevNext", "minMax", "max", "sumLinear", "median", "mode", "diffCtrUpCleaned"})
        for (const auto& [start, end] : ranges)
            expectSameAsRecordByRecord(request(method, 3600, true), {}, start, end, false, 0);
}
