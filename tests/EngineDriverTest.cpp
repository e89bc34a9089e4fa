// The engine driver: chains of engines, the result limit, count-only reads,
// conversion of interval values to the series' type, and what the engine
// asks its reader for.
#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

using Kel::Interpolate;
using Kel::test::DataRecord;
using Kel::test::evenSeries;
using Kel::test::LogCapture;
using Kel::test::ms;
using Kel::test::Read;
using Kel::test::request;
using Kel::test::runRead;

namespace {

class EngineDriver : public ::testing::Test {
protected:
    // Records of value 1 every 10 s from 10:00 to 12:59:50.
    std::vector<DataRecord> tenSecondOnes() const
    {
        return evenSeries(ms("2024-05-07T10:00:00Z"), 10000, std::vector<double>(1080, 1.0));
    }

    // One record per hour, 10:30 to 12:30, worth the hour.
    std::vector<DataRecord> hourly() const
    {
        return {{ms("2024-05-07T10:30:00Z"), QVariant(10.0)},
                {ms("2024-05-07T11:30:00Z"), QVariant(11.0)},
                {ms("2024-05-07T12:30:00Z"), QVariant(12.0)}};
    }

    Read hourlyMeans(int limit = 0) const
    {
        Read read;
        read.param = request("meanA", 3600);
        read.start = ms("2024-05-07T10:00:00Z");
        read.end = ms("2024-05-07T13:00:00Z");
        read.limit = limit;
        return read;
    }

    // The value an interval value of v becomes in a series of the given type.
    QVariant stored(QMetaType::Type type, double v)
    {
        out.clear();
        int resultCount = 0;
        Interpolate e(request("meanA", 3600), {}, ms("2024-05-07T10:00:00Z"), ms("2024-05-07T12:00:00Z"),
                      ms("2024-01-01T00:00:00Z"), ms("2024-12-01T00:00:00Z"), &out, type, false, resultCount, false);
        long long rs = 0;
        long long re = 0;
        e.getRange(rs, re);
        e.pushIntervalValue(ms("2024-05-07T11:00:00Z"), v, false);
        return out.empty() ? QVariant(QStringLiteral("nothing stored")) : out.back().value;
    }

    std::vector<DataRecord> out;
};

// --- chains ---

TEST_F(EngineDriver, ChainIsBuiltFurtherParametersFirstWithTheGivenParameterLast)
{
    std::vector<DataRecord> records;
    int resultCount = 5;
    Interpolate e(request("meanA", 3600), {request("count", 60), request("sum", 600)}, 0, 0, 0, 0, &records,
                  QMetaType::Double, true, resultCount, false);

    ASSERT_NE(e.next, nullptr);
    ASSERT_NE(e.next->next, nullptr);
    EXPECT_EQ(e.next->next->next, nullptr);
    EXPECT_EQ(e.method, Interpolate::COUNT);
    EXPECT_EQ(e.next->method, Interpolate::SUM);
    EXPECT_EQ(e.next->next->method, Interpolate::MEAN_A);
    // Only the first holds the limit; only the last labels at interval start.
    EXPECT_EQ(e.limit, 5);
    EXPECT_EQ(e.next->limit, 0);
    EXPECT_EQ(e.next->next->limit, 0);
    EXPECT_FALSE(e.labelAtIntervalStart);
    EXPECT_FALSE(e.next->labelAtIntervalStart);
    EXPECT_TRUE(e.next->next->labelAtIntervalStart);
    EXPECT_EQ(resultCount, 0);
}

TEST_F(EngineDriver, EachEngineOfAChainWorksOnTheValuesOfTheOneBefore)
{
    // Per minute 6 records are counted, per 10 minutes the counts summed to 60,
    // per hour those sums averaged. The other way round the result would be 1.
    Read read;
    read.param = request("meanA", 3600);
    read.chain = {request("count", 60), request("sum", 600)};
    read.start = ms("2024-05-07T11:00:00Z");
    read.end = ms("2024-05-07T12:00:00Z");

    const std::vector<DataRecord> result = runRead(read, tenSecondOnes());

    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result[0].timestamp, ms("2024-05-07T12:00:00Z"));
    EXPECT_DOUBLE_EQ(result[0].value.toDouble(), 60.0);
}

// --- limit ---

TEST_F(EngineDriver, LimitOfOneStopsASingleEngineAfterItsFirstResult)
{
    Read read = hourlyMeans(1);
    const std::vector<DataRecord> result = runRead(read, hourly());
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(read.resultCount, 1);
    EXPECT_LT(read.recordsFed, 3);
}

TEST_F(EngineDriver, LimitDoesNotCutAChainShort)
{
    Read read = hourlyMeans(1);
    read.chain = {request("prev", 1800)};
    const std::vector<DataRecord> result = runRead(read, hourly());
    EXPECT_GT(result.size(), 1u);
    EXPECT_EQ(read.resultCount, 0);
}

TEST_F(EngineDriver, WithoutLimitEveryIntervalIsStoredAndResultCountStaysZero)
{
    Read read = hourlyMeans();
    const std::vector<DataRecord> result = runRead(read, hourly());
    EXPECT_EQ(Kel::test::timesOf(result),
              (std::vector<long long>{ms("2024-05-07T11:00:00Z"), ms("2024-05-07T12:00:00Z"),
                                      ms("2024-05-07T13:00:00Z")}));
    EXPECT_EQ(Kel::test::valuesOf(result), (std::vector<double>{10.0, 11.0, 12.0}));
    EXPECT_EQ(read.resultCount, 0);
}

// --- count-only ---

TEST_F(EngineDriver, CountOnlyKeepsOneCountRecordThatCountsTheResults)
{
    Read read = hourlyMeans(1);
    read.countOnly = true;
    const std::vector<DataRecord> result = runRead(read, hourly());
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result[0].timestamp, -1);
    EXPECT_EQ(result[0].value.toLongLong(), 3);  // no limit applies when counting
}

TEST_F(EngineDriver, CountRecordIsInvalidBeforeTheFirstResult)
{
    int resultCount = 0;
    Interpolate e(request("meanA", 3600), {}, 0, 0, 0, 0, &out, QMetaType::Double, false, resultCount, true);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].timestamp, -1);
    EXPECT_FALSE(out[0].value.isValid());
}

TEST_F(EngineDriver, CountOnlyChainAddsOneCountRecordPerEngineAndCountsInTheFirst)
{
    Read read;
    read.param = request("meanA", 3600);
    read.chain = {request("count", 60), request("sum", 600)};
    read.start = ms("2024-05-07T11:00:00Z");
    read.end = ms("2024-05-07T12:00:00Z");
    read.countOnly = true;

    const std::vector<DataRecord> result = runRead(read, tenSecondOnes());

    ASSERT_EQ(result.size(), 3u);
    EXPECT_EQ(result[0].value.toLongLong(), 1);
    for (const DataRecord& r : result)
        EXPECT_EQ(r.timestamp, -1);
    EXPECT_FALSE(result[1].value.isValid());
    EXPECT_FALSE(result[2].value.isValid());
}

TEST_F(EngineDriver, KnownCountOfAChainIsTheLastEnginesAndReadingIsSkipped)
{
    Read read;
    read.param = request("meanAFill", 3600);
    read.chain = {request("count", 60)};
    read.start = ms("2024-05-07T11:00:00Z");
    read.end = ms("2024-05-07T12:00:00Z");
    read.countOnly = true;

    const std::vector<DataRecord> result = runRead(read, tenSecondOnes());

    ASSERT_EQ(result.size(), 2u);
    EXPECT_EQ(result[0].timestamp, 0);
    EXPECT_EQ(result[0].value.toLongLong(), 2);
    EXPECT_EQ(read.recordsFed, 0);
}

// --- conversion to the series' type ---

TEST_F(EngineDriver, IntervalValuesAreTruncatedAndCutToTheSeriesType)
{
    EXPECT_EQ(stored(QMetaType::Bool, 0.5), QVariant(false));
    EXPECT_EQ(stored(QMetaType::Bool, 0.5000001), QVariant(true));
    EXPECT_EQ(stored(QMetaType::Int, -2.9), QVariant(-2));
    EXPECT_EQ(stored(QMetaType::UInt, -1.0), QVariant(4294967295u));
    EXPECT_EQ(stored(QMetaType::LongLong, 1e15 + 0.7), QVariant(qlonglong(1000000000000000LL)));
    EXPECT_EQ(stored(QMetaType::ULongLong, 9223372036854775808.0), QVariant(qulonglong(9223372036854775808ULL)));
    EXPECT_EQ(stored(QMetaType::ULongLong, 12.9), QVariant(qulonglong(12)));
    EXPECT_EQ(stored(QMetaType::Double, 0.125), QVariant(0.125));
    EXPECT_EQ(stored(QMetaType::Short, 40000.0), QVariant(-25536));
    EXPECT_EQ(stored(QMetaType::Char, 200.0), QVariant(-56));
    EXPECT_EQ(stored(QMetaType::UShort, -1.0), QVariant(65535));
    EXPECT_EQ(stored(QMetaType::UChar, -1.9), QVariant(255));
    EXPECT_EQ(stored(QMetaType::Float, 0.25), QVariant(0.25f));
}

TEST_F(EngineDriver, NaNAndInfiniteValuesAreLoggedOnceAndStoredAsZero)
{
    LogCapture log;
    EXPECT_EQ(stored(QMetaType::Int, std::numeric_limits<double>::quiet_NaN()), QVariant(0));
    EXPECT_EQ(stored(QMetaType::Double, -std::numeric_limits<double>::infinity()), QVariant(0.0));
    const QString ts = QString::number(ms("2024-05-07T11:00:00Z"));
    EXPECT_EQ(log.count(QStringLiteral("Interval double value is NaN (TS:") + ts), 1);
    EXPECT_EQ(log.count(QStringLiteral("Interval double value is Inf (TS:") + ts), 1);
    ASSERT_EQ(log.entries.size(), 2u);
    EXPECT_EQ(log.entries[0].level, 4);
    EXPECT_EQ(log.entries[0].sourceFile, QStringLiteral("lib/KelTSFileStorage/src/Interpolate"));
}

TEST_F(EngineDriver, UnsupportedSeriesTypeStoresAnInvalidValueAndLogsAFailure)
{
    LogCapture log;
    const QVariant v = stored(QMetaType::QString, 3.0);
    EXPECT_FALSE(v.isValid());
    ASSERT_EQ(log.entries.size(), 1u);
    EXPECT_EQ(log.entries[0].level, 2);
    EXPECT_EQ(log.entries[0].message, QStringLiteral("pushIntervalValue: Invalid target value type QString"));
}

TEST_F(EngineDriver, NullIntervalValuesAreStoredInvalid)
{
    int resultCount = 0;
    Interpolate e(request("meanA", 3600), {}, ms("2024-05-07T10:00:00Z"), ms("2024-05-07T12:00:00Z"), 0,
                  ms("2024-12-01T00:00:00Z"), &out, QMetaType::Int, false, resultCount, false);
    long long rs = 0;
    long long re = 0;
    e.getRange(rs, re);
    e.pushIntervalValue(ms("2024-05-07T11:00:00Z"), 5.0, true);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_FALSE(out[0].value.isValid());
}

TEST_F(EngineDriver, LabelsAtIntervalStartStampEachValueWithTheStartOfItsInterval)
{
    Read read = hourlyMeans();
    read.end = ms("2024-05-07T12:00:00Z");
    read.labelAtIntervalStart = true;
    std::vector<DataRecord> series = hourly();
    series.insert(series.begin(), DataRecord{ms("2024-05-07T09:30:00Z"), QVariant(9.0)});
    const std::vector<DataRecord> result = runRead(read, series);
    EXPECT_EQ(Kel::test::timesOf(result),
              (std::vector<long long>{ms("2024-05-07T10:00:00Z"), ms("2024-05-07T11:00:00Z"),
                                      ms("2024-05-07T12:00:00Z")}));
    EXPECT_EQ(Kel::test::valuesOf(result), (std::vector<double>{10.0, 11.0, 12.0}));
}

// --- end of output and errors ---

TEST_F(EngineDriver, ValuesPastTheOutputEndAreDroppedAndReadingGoesOn)
{
    int resultCount = 0;
    Interpolate e(request("meanAFill", 3600), {}, ms("2024-05-07T10:00:00Z"), ms("2024-05-07T12:00:00Z"), 0,
                  ms("2024-12-01T00:00:00Z"), &out, QMetaType::Double, false, resultCount, false);
    long long rs = 0;
    long long re = 0;
    ASSERT_TRUE(e.getRange(rs, re));
    EXPECT_THROW(e.pushIntervalValue(ms("2024-05-07T12:00:00.001Z"), 1.0, false), std::out_of_range);

    EXPECT_TRUE(e.handleNextRawRecord(DataRecord{ms("2024-05-07T10:30:00Z"), QVariant(4.0)}));
    EXPECT_TRUE(e.handleNextRawRecord(DataRecord{ms("2024-05-07T18:00:00Z"), QVariant(8.0)}));
    EXPECT_EQ(Kel::test::timesOf(out),
              (std::vector<long long>{ms("2024-05-07T10:00:00Z"), ms("2024-05-07T11:00:00Z"),
                                      ms("2024-05-07T12:00:00Z")}));
}

TEST_F(EngineDriver, UnexpectedErrorIsLoggedAndStopsTheRead)
{
    LogCapture log;
    int resultCount = 0;
    Interpolate e(request("", 0), {}, 0, 100, 0, 100, &out, QMetaType::Double, false, resultCount, true);
    long long rs = 0;
    long long re = 0;
    ASSERT_TRUE(e.getRange(rs, re));
    out.clear();  // the count record is gone

    EXPECT_FALSE(e.handleNextRawRecord(DataRecord{50, QVariant(1.0)}));
    EXPECT_EQ(log.count(QStringLiteral("Interpolate exception 'vector::_M_range_check")), 1);
    EXPECT_FALSE(e.handleNextRawRecord(DataRecord{60, QVariant(1.0)}));
    EXPECT_EQ(log.entries.size(), 1u);
}

// --- what the reader is asked for ---

TEST_F(EngineDriver, NeighbouringRecordsAreAskedForByMethodAndModifiers)
{
    struct Case {
        const char* method;
        long long interval;
        bool previous;
        bool after;
    };
    const Case cases[] = {
        {"prevNext", 60, true, true},   {"prevNextLinear", 60, true, true}, {"prev", 60, true, false},
        {"prevLinear", 60, true, true}, {"next", 60, false, true},          {"nextLinear", 60, true, true},
        {"sum", 60, false, false},      {"sumLinear", 60, true, true},      {"diffSum", 60, true, false},
        {"meanA", 60, false, false},    {"minLinear", 60, false, false},    {"", 0, false, false},
        {"diff", 0, true, false},
    };
    for (const Case& c : cases) {
        int resultCount = 0;
        Interpolate e(request(c.method, c.interval), {}, 0, 0, 0, 0, &out, QMetaType::Double, false, resultCount,
                      false);
        EXPECT_EQ(e.needsPreviousDataRecords(), c.previous) << c.method;
        EXPECT_EQ(e.needsDataRecordAfterRangeEnd(), c.after) << c.method;
    }
}

TEST_F(EngineDriver, ChainAsksForWhatAnyOfItsEnginesNeeds)
{
    int resultCount = 0;
    Interpolate e(request("meanA", 3600), {request("prevNextLinearFill", 900)}, 0, 0, 0, 0, &out,
                  QMetaType::Double, false, resultCount, false);
    EXPECT_TRUE(e.needsPreviousDataRecords());
    EXPECT_TRUE(e.needsDataRecordAfterRangeEnd());
}

TEST_F(EngineDriver, RawRecordsPassThroughOnlyWhenNothingTouchesThem)
{
    const auto passes = [this](Interpolate::InterpolateParam p, std::vector<Interpolate::InterpolateParam> chain,
                               int limit, bool countOnly) {
        int resultCount = limit;
        Interpolate e(p, chain, 0, 0, 0, 0, &out, QMetaType::Double, false, resultCount, countOnly);
        return e.passesRawRecordsThrough();
    };
    Interpolate::InterpolateParam filtered = request("", 0);
    filtered.filterParams.push_back(Interpolate::FilterParam{});

    EXPECT_TRUE(passes(request("", 0), {}, 0, false));
    EXPECT_TRUE(passes(request("anything", 0), {}, -1, false));
    EXPECT_FALSE(passes(request("", 0), {}, 10, false));
    EXPECT_FALSE(passes(request("", 0), {}, 0, true));
    EXPECT_FALSE(passes(request("diff", 0), {}, 0, false));
    EXPECT_FALSE(passes(filtered, {}, 0, false));
    EXPECT_FALSE(passes(request("", 0), {request("", 0)}, 0, false));
    EXPECT_FALSE(passes(request("meanA", 60), {}, 0, false));
}

} // namespace
