#include "EngineHarness.h"
#include "StorageFixture.h"

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
    long long countRaw(long long start, long long end)
    {
        return series->getCount({}, {}, start, end, true, false, false);
    }
    const long long t0 = ms("2024-05-07T00:00:00Z");
    const long long last = t0 + (3 * 1440 - 1) * 60000LL;
};

TEST_F(Reading, WholeSeriesComesBackInOrderAcrossFiles)
{
    ASSERT_TRUE(QFileInfo(file(QStringLiteral("2024/05/08"))).isFile());
    const Records all = read(0, ms("2100-01-01T00:00:00Z"));
    ASSERT_EQ(all.size(), 3u * 1440);
    for (size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(all[i].timestamp, t0 + qint64(i) * 60000);
        ASSERT_EQ(all[i].value.toDouble(), double(i));
    }
}

TEST_F(Reading, RangeInsideFilesIsInclusiveAtBothEnds)
{
    const long long from = t0 + 1439 * 60000LL;  // last record of the first day
    const long long to = t0 + 1441 * 60000LL;
    EXPECT_EQ(timestamps(read(from, to)), (std::vector<long long>{from, from + 60000, to}));
    EXPECT_EQ(read(from + 1, from + 59999).size(), 0u);
    EXPECT_EQ(read(ms("2024-05-08T00:00:00Z"), ms("2024-05-08T00:00:00Z")).size(), 1u);
}

TEST_F(Reading, EveryRangeReadsExactlyItsRecords)
{
    // Ends inside a file, at a file's last record and between records, over
    // none, one and two file boundaries.
    const long long minute = 60000;
    const std::pair<long long, long long> ranges[] = {
        {t0 + 600 * minute, t0 + 660 * minute},         {t0 + 600 * minute, t0 + 1439 * minute},
        {t0 + 600 * minute + 1, t0 + 2000 * minute - 1}, {t0, t0 + 2879 * minute + 30000},
        {t0 + 100 * minute, last},
    };
    for (const auto& [from, to] : ranges) {
        const long long first = (from - t0 + minute - 1) / minute;
        const long long end = (to - t0) / minute;
        const Records got = read(from, to);
        ASSERT_EQ(got.size(), size_t(end - first + 1)) << from << ".." << to;
        EXPECT_EQ(got.front().timestamp, t0 + first * minute);
        EXPECT_EQ(got.back().timestamp, t0 + end * minute);
    }
}

TEST_F(Reading, LimitStopsTheReadAndReportsTheCount)
{
    Records out;
    int count = 5;
    series->readDataRecords({}, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD, out, false, count);
    EXPECT_EQ(out.size(), 5u);
    EXPECT_EQ(count, 5);
}

TEST_F(Reading, RawCountsAgreeWithReads)
{
    EXPECT_EQ(countRaw(TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD), 3 * 1440);
    EXPECT_EQ(countRaw(0, ms("2100-01-01T00:00:00Z")), 3 * 1440);
    EXPECT_EQ(countRaw(t0 + 1000 * 60000LL, t0 + 2000 * 60000LL), 1001);
    EXPECT_EQ(countRaw(t0 + 1000 * 60000LL + 1, t0 + 2000 * 60000LL - 1), 999);
    EXPECT_EQ(countRaw(ms("2024-05-08T00:00:00Z"), ms("2024-05-08T23:59:59.999Z")), 1440);
    EXPECT_EQ(countRaw(last + 1, ms("2100-01-01T00:00:00Z")), 0);
    EXPECT_EQ(series->getCount({}, {}, 0, last, false, false, false), 0);
}

TEST_F(Reading, PartialRecordAtTheEndIsIgnored)
{
    const QString day = file(QStringLiteral("2024/05/09"));
    writeBytes(day, readBytes(day) + QByteArray(5, '\x7f'));
    const Records tail = read(last - 60000, TSFileStorage::TS_LAST_RECORD);
    EXPECT_EQ(timestamps(tail), (std::vector<long long>{last - 60000, last}));
    EXPECT_EQ(countRaw(TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD), 3 * 1440);
}

TEST_F(Reading, MissingFilesAreSkippedAndTheWalkGoesOn)
{
    QFile::remove(file(QStringLiteral("2024/05/08")));
    const Records all = read(0, ms("2100-01-01T00:00:00Z"));
    EXPECT_EQ(all.size(), 2u * 1440);
    EXPECT_EQ(all[1440].timestamp, ms("2024-05-09T00:00:00Z"));
}

TEST_F(Reading, VariableValuesComeBackFromTheirSideFiles)
{
    useSeries(QMetaType::QString);
    write({{t0, QStringLiteral("on")}, {t0 + 1, QStringLiteral("off")}});
    const Records back = read();
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(back[1].value.toString(), QStringLiteral("off"));
}

TEST_F(Reading, RawReadsGiveEachTypeTheValuesOfItsLookups)
{
    // The raw read builds its values straight in the output; a lookup
    // decodes one record. Both must give the same type and value.
    const QMetaType::Type types[] = {QMetaType::Bool, QMetaType::Char, QMetaType::UChar, QMetaType::Short,
                                     QMetaType::UShort, QMetaType::Int, QMetaType::UInt, QMetaType::LongLong,
                                     QMetaType::ULongLong, QMetaType::Double, QMetaType::Float, QMetaType::QString};
    for (QMetaType::Type type : types) {
        QTemporaryDir dir;
        TSFileStorage typed(dir.path(), type, 1 << 30);
        typed.writeDataRecords({{t0, QVariant(-2)}, {t0 + 1000, QVariant(200)}, {t0 + 2000, QVariant(1.5)}}, false,
                               false);
        Records back;
        int noLimit = 0;
        typed.readDataRecords({}, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD, back, false,
                              noLimit);
        ASSERT_EQ(back.size(), 3u) << type;
        for (const Record& r : back) {
            Record one;
            ASSERT_TRUE(typed.findDataRecord(r.timestamp, one));
            EXPECT_EQ(r.value.typeId(), one.value.typeId()) << type;
            EXPECT_EQ(r.value, one.value) << type;
        }
    }
}

// Records around an empty hour, read condensed: the reader must feed the
// record before the range and the one after it.
class CondensedReading : public StorageFixture {
protected:
    void SetUp() override
    {
        write({{at("09:50"), 3.0}, {at("10:15"), 5.0}, {at("10:40"), 7.0}, {at("12:20"), 9.0}, {at("13:10"), 4.0}});
    }
    static long long at(const char* hhmm)
    {
        return ms(QStringLiteral("2024-05-07T%1:00Z").arg(QLatin1String(hhmm)).toLatin1().constData());
    }
    Records hourly(const QString& method) { return read(at("11:00"), at("13:00"), method, 3600); }
    static std::vector<double> values(const Records& records)
    {
        std::vector<double> v;
        for (const Record& r : records)
            v.push_back(r.value.toDouble());
        return v;
    }
};

TEST_F(CondensedReading, LinearValuesUseTheRecordsAroundTheRange)
{
    const Records r = hourly(QStringLiteral("prevNextLinearFill"));
    EXPECT_EQ(timestamps(r), (std::vector<long long>{at("11:00"), at("12:00"), at("13:00")}));
    ASSERT_EQ(r.size(), 3u);
    EXPECT_NEAR(r[0].value.toDouble(), 7.4, 1e-9);
    EXPECT_NEAR(r[1].value.toDouble(), 8.6, 1e-9);
    EXPECT_NEAR(r[2].value.toDouble(), 5.0, 1e-9);
}

TEST_F(CondensedReading, NextValueComesFromTheRecordAfterTheRange)
{
    EXPECT_EQ(values(hourly(QStringLiteral("next"))), (std::vector<double>{9.0, 4.0}));
    EXPECT_EQ(values(hourly(QStringLiteral("prevFill"))), (std::vector<double>{7.0, 7.0, 9.0}));
}

TEST_F(CondensedReading, IntervalCountsAgreeWithTheRead)
{
    for (const char* method : {"countFill", "count", "meanA", "prevNext"}) {
        Kel::Interpolate::InterpolateParam param;
        param.method = QString::fromLatin1(method);
        param.interval = 3600;
        EXPECT_EQ(series->getCount(param, {}, at("11:00"), at("13:00"), true, false, false),
                  qint64(hourly(param.method).size()))
            << method;
    }
}

// The means and the count take the records inside an interval from the
// file's blocks as plain values; every result must be the one the engine
// gives when it is handed each record whole.
class PlainValueReading : public StorageFixture {
protected:
    void SetUp() override
    {
        // Three days of irregular records, zero and negative values among
        // them, written a day at a time so that the tree splits into days.
        useSeries(QMetaType::Double, 100000);
        for (int day = 0; day < 3; ++day) {
            Records batch;
            for (long long t = t0 + day * 86400000LL; t < t0 + (day + 1) * 86400000LL; t += 7919)
                batch.push_back({t, QVariant(double((t / 7919) % 11) - 3.0)});
            write(batch);
            all.insert(all.end(), batch.begin(), batch.end());
        }
    }

    void expectSameAsRecordByRecord(const InterpolateParam& param, const std::vector<InterpolateParam>& chain,
                                    long long start, long long end, bool label, int limit)
    {
        Read read;
        read.param = param;
        read.chain = chain;
        read.start = start;
        read.end = end;
        read.labelAtIntervalStart = label;
        read.resultCount = limit;
        const Records expected = runRead(read, all);

        Records got;
        int count = limit;
        ASSERT_TRUE(series->readDataRecords(param, chain, start, end, got, label, count));
        const std::string what = param.method.toStdString() + " " + std::to_string(param.interval);
        ASSERT_EQ(got.size(), expected.size()) << what;
        for (size_t i = 0; i < got.size(); ++i) {
            ASSERT_EQ(got[i].timestamp, expected[i].timestamp) << what << " result " << i;
            ASSERT_EQ(got[i].value, expected[i].value) << what << " result " << i;
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
    Records all;
};

TEST_F(PlainValueReading, MeansAndCountsEqualTheRecordByRecordResults)
{
    const std::pair<long long, long long> ranges[] = {
        {TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD},
        {t0 + 12345, t0 + 2 * 86400000LL - 777},
    };
    for (const char* method : {"meanA", "meanG", "meanH", "meanS", "count", "meanAFillNull", "countFill"})
        for (long long interval : {3600LL, 7LL, -1LL})
            for (const auto& [start, end] : ranges)
                for (bool label : {false, true})
                    for (int limit : {0, 7})
                        expectSameAsRecordByRecord(request(method, interval, true), {}, start, end, label, limit);

    // In a chain only the first engine takes the records.
    expectSameAsRecordByRecord(request("meanS", 3600), {request("meanA", 600)}, t0 + 999, t0 + 86400000LL, false, 0);
    expectSameAsRecordByRecord(request("meanA", 3600), {request("diff", 600)}, t0 + 999, t0 + 86400000LL, false, 0);
}
