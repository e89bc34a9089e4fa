// The aggregation methods, each read over a small series the way the storage
// reads: which interval a record belongs to, what an interval is worth, and
// what empty intervals yield.
#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>

using Kel::Interpolate;
using Kel::test::DataRecord;
using Kel::test::ms;
using Kel::test::Read;
using Kel::test::request;
using Kel::test::runRead;
using Kel::test::timesOf;
using Kel::test::valuesOf;

// Counts heap allocations, so that a test can show the per-record path makes
// none. Every plain form of new and delete is replaced, so that memory from
// any of them is released the way it was taken.
namespace {
std::atomic<long> allocations{0};

void* counted(std::size_t size) noexcept
{
    ++allocations;
    return std::malloc(size ? size : 1);
}

void* countedOrThrow(std::size_t size)
{
    if (void* p = counted(size))
        return p;
    throw std::bad_alloc();
}
} // namespace

void* operator new(std::size_t size) { return countedOrThrow(size); }
void* operator new[](std::size_t size) { return countedOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return counted(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

DataRecord at(const char* time, double value)
{
    return DataRecord{ms(time), QVariant(value)};
}

class AggregationHandlers : public ::testing::Test {
protected:
    // Hourly results for the interval ends from start to end (both included).
    std::vector<DataRecord> read(const char* method, const std::vector<DataRecord>& series,
                                 const char* start = "2024-05-07T11:00:00Z", const char* end = "2024-05-07T11:00:00Z")
    {
        Read r;
        r.param = request(method, 3600);
        r.start = ms(start);
        r.end = ms(end);
        r.countOnly = countOnly;
        return runRead(r, series);
    }

    // The single result of one hour, 10:00 to 11:00.
    double hourValue(const char* method, const std::vector<double>& values)
    {
        std::vector<DataRecord> series;
        for (std::size_t i = 0; i < values.size(); ++i)
            series.push_back(DataRecord{ms("2024-05-07T10:05:00Z") + static_cast<long long>(i) * 60000,
                                        QVariant(values[i])});
        const std::vector<DataRecord> result = read(method, series);
        if (result.size() != 1)
            return -12345.0;
        return result[0].value.toDouble();
    }

    // 10:15 = 5 and 10:40 = 7 in the first hour, nothing in the second,
    // 12:20 = 9 in the third, 13:10 = 4 after the range; 09:50 = 3 before it.
    const std::vector<DataRecord> gappy = {at("2024-05-07T09:50:00Z", 3), at("2024-05-07T10:15:00Z", 5),
                                           at("2024-05-07T10:40:00Z", 7), at("2024-05-07T12:20:00Z", 9),
                                           at("2024-05-07T13:10:00Z", 4)};
    const char* gapStart = "2024-05-07T11:00:00Z";
    const char* gapEnd = "2024-05-07T13:00:00Z";
    bool countOnly = false;
};

// --- which interval a record belongs to, and empty intervals ---

TEST_F(AggregationHandlers, RecordExactlyAtAnIntervalEndBelongsToTheNextInterval)
{
    const std::vector<DataRecord> series = {at("2024-05-07T10:00:00Z", 1), at("2024-05-07T10:30:00Z", 1),
                                            at("2024-05-07T11:00:00Z", 1)};
    const std::vector<DataRecord> result = read("count", series, "2024-05-07T11:00:00Z", "2024-05-07T12:00:00Z");
    EXPECT_EQ(timesOf(result), (std::vector<long long>{ms("2024-05-07T11:00:00Z"), ms("2024-05-07T12:00:00Z")}));
    EXPECT_EQ(valuesOf(result), (std::vector<double>{2, 1}));
}

TEST_F(AggregationHandlers, EmptyIntervalsYieldNothingZeroOrNullAsAsked)
{
    EXPECT_EQ(valuesOf(read("count", gappy, gapStart, gapEnd)), (std::vector<double>{2, 1}));

    const std::vector<DataRecord> filled = read("countFill", gappy, gapStart, gapEnd);
    EXPECT_EQ(valuesOf(filled), (std::vector<double>{2, 0, 1}));
    EXPECT_TRUE(filled[1].value.isValid());

    const std::vector<DataRecord> nulls = read("countFillNull", gappy, gapStart, gapEnd);
    ASSERT_EQ(nulls.size(), 3u);
    EXPECT_EQ(nulls[1].timestamp, ms("2024-05-07T12:00:00Z"));
    EXPECT_FALSE(nulls[1].value.isValid());
}

TEST_F(AggregationHandlers, FilledReadsYieldAsManyResultsAsTheFastCountSays)
{
    for (const char* method : {"countFill", "meanAFill", "prevNextFill", "prevFill", "nextFill", "minMaxFill",
                               "minMaxAverageFill", "maxFill", "sumFill", "medianFill", "modeFill"}) {
        const std::vector<DataRecord> result = read(method, gappy, gapStart, gapEnd);
        countOnly = true;
        const std::vector<DataRecord> counted = read(method, gappy, gapStart, gapEnd);
        countOnly = false;
        ASSERT_EQ(counted.size(), 1u) << method;
        EXPECT_EQ(counted[0].timestamp, 0) << method;
        EXPECT_EQ(static_cast<long long>(result.size()), counted[0].value.toLongLong()) << method;
    }
}

// --- means ---

TEST_F(AggregationHandlers, MeansOfAnInterval)
{
    EXPECT_DOUBLE_EQ(hourValue("meanA", {1, 2, 3, 6}), 3.0);
    EXPECT_DOUBLE_EQ(hourValue("meanG", {1, 4, 16}), 4.0);
    EXPECT_DOUBLE_EQ(hourValue("meanH", {1, 4, 4}), 2.0);
    EXPECT_DOUBLE_EQ(hourValue("meanS", {3, 4}), std::sqrt(12.5));
}

TEST_F(AggregationHandlers, ZeroActsAsOneInTheGeometricMeanAndDropsOutOfTheHarmonicSum)
{
    EXPECT_DOUBLE_EQ(hourValue("meanG", {0, 4}), 2.0);
    EXPECT_DOUBLE_EQ(hourValue("meanH", {0, 1, 4}), 3.0 / 1.25);
}

TEST_F(AggregationHandlers, HarmonicMeanOfZerosIsAnEmptyInterval)
{
    const std::vector<DataRecord> zeros = {at("2024-05-07T10:10:00Z", 0), at("2024-05-07T10:20:00Z", 0)};
    EXPECT_TRUE(read("meanH", zeros).empty());
    const std::vector<DataRecord> filled = read("meanHFillNull", zeros);
    ASSERT_EQ(filled.size(), 1u);
    EXPECT_FALSE(filled[0].value.isValid());
}

// --- median, mode, count ---

TEST_F(AggregationHandlers, MedianIsTheMiddleValueAndTheLowerOneForAnEvenCount)
{
    EXPECT_DOUBLE_EQ(hourValue("median", {9, 1, 5}), 5.0);
    EXPECT_DOUBLE_EQ(hourValue("median", {9, 1, 5, 7}), 5.0);
    EXPECT_DOUBLE_EQ(hourValue("median", {3, kNaN, 8, 1}), 3.0);
}

TEST_F(AggregationHandlers, ModeIsTheMostFrequentValueAndTheSmallestOnATie)
{
    EXPECT_DOUBLE_EQ(hourValue("mode", {2, 7, 7, 2, 7}), 7.0);
    EXPECT_DOUBLE_EQ(hourValue("mode", {9, 4, 9, 4}), 4.0);
}

TEST_F(AggregationHandlers, MedianAndModeStartEveryIntervalAfresh)
{
    const std::vector<DataRecord> series = {at("2024-05-07T10:10:00Z", 1), at("2024-05-07T10:20:00Z", 1),
                                            at("2024-05-07T10:30:00Z", 2), at("2024-05-07T11:10:00Z", 8)};
    const char* start = "2024-05-07T11:00:00Z";
    const char* end = "2024-05-07T12:00:00Z";
    EXPECT_EQ(valuesOf(read("median", series, start, end)), (std::vector<double>{1, 8}));
    EXPECT_EQ(valuesOf(read("mode", series, start, end)), (std::vector<double>{1, 8}));
}

// --- minimum and maximum ---

TEST_F(AggregationHandlers, ExtremeIsStampedWithItsOwnTimeAndTheEarliestOfEqualsWins)
{
    const std::vector<DataRecord> series = {at("2024-05-07T10:10:00Z", 5), at("2024-05-07T10:20:00Z", 2),
                                            at("2024-05-07T10:40:00Z", 2), at("2024-05-07T10:50:00Z", 7),
                                            at("2024-05-07T10:55:00Z", 7)};
    const std::vector<DataRecord> low = read("min", series);
    const std::vector<DataRecord> high = read("max", series);
    ASSERT_EQ(low.size(), 1u);
    ASSERT_EQ(high.size(), 1u);
    EXPECT_EQ(low[0].timestamp, ms("2024-05-07T10:20:00Z"));
    EXPECT_EQ(low[0].value.toDouble(), 2.0);
    EXPECT_EQ(high[0].timestamp, ms("2024-05-07T10:50:00Z"));
    EXPECT_EQ(high[0].value.toDouble(), 7.0);
}

TEST_F(AggregationHandlers, AlignedExtremeIsStampedAtTheIntervalEnd)
{
    const std::vector<DataRecord> series = {at("2024-05-07T10:10:00Z", 5), at("2024-05-07T10:20:00Z", 2)};
    const std::vector<DataRecord> low = read("minAlign", series);
    ASSERT_EQ(low.size(), 1u);
    EXPECT_EQ(low[0].timestamp, ms("2024-05-07T11:00:00Z"));
    EXPECT_EQ(low[0].value.toDouble(), 2.0);
}

TEST_F(AggregationHandlers, EmptyIntervalsAfterAnExtremeRepeatItWhenFilled)
{
    const std::vector<DataRecord> filled = read("maxFill", gappy, gapStart, gapEnd);
    EXPECT_EQ(timesOf(filled), (std::vector<long long>{ms("2024-05-07T10:40:00Z"), ms("2024-05-07T12:00:00Z"),
                                                      ms("2024-05-07T12:20:00Z")}));
    EXPECT_EQ(valuesOf(filled), (std::vector<double>{7, 7, 9}));
    EXPECT_EQ(read("max", gappy, gapStart, gapEnd).size(), 2u);
}

TEST_F(AggregationHandlers, NaNNeverReplacesAKeptExtreme)
{
    const std::vector<DataRecord> series = {at("2024-05-07T10:10:00Z", 3), at("2024-05-07T10:20:00Z", kNaN),
                                            at("2024-05-07T10:30:00Z", 1)};
    EXPECT_EQ(valuesOf(read("minAlign", series)), (std::vector<double>{1}));
    EXPECT_EQ(valuesOf(read("maxAlign", series)), (std::vector<double>{3}));
}

TEST_F(AggregationHandlers, MinMaxDeliversTheMinimumAtTheEndAndTheMaximumOneMillisecondLater)
{
    const std::vector<DataRecord> series = {at("2024-05-07T10:10:00Z", 5), at("2024-05-07T10:20:00Z", 9),
                                            at("2024-05-07T10:30:00Z", 1)};
    const std::vector<DataRecord> result = read("minMax", series);
    EXPECT_EQ(timesOf(result), (std::vector<long long>{ms("2024-05-07T11:00:00Z"), ms("2024-05-07T11:00:00.001Z")}));
    EXPECT_EQ(valuesOf(result), (std::vector<double>{1, 9}));
    EXPECT_EQ(valuesOf(read("minMaxAverage", series)), (std::vector<double>{5}));
}

// --- previous and next values ---

TEST_F(AggregationHandlers, PrevIsTheValueHeldAtTheIntervalEnd)
{
    EXPECT_EQ(valuesOf(read("prev", gappy, gapStart, gapEnd)), (std::vector<double>{7, 9}));
    EXPECT_EQ(valuesOf(read("prevFill", gappy, gapStart, gapEnd)), (std::vector<double>{7, 7, 9}));
}

TEST_F(AggregationHandlers, PrevAtARecordExactlyOnTheEndIsThatRecord)
{
    const std::vector<DataRecord> series = {at("2024-05-07T10:30:00Z", 1), at("2024-05-07T11:00:00Z", 2),
                                            at("2024-05-07T11:30:00Z", 3)};
    EXPECT_EQ(valuesOf(read("prev", series)), (std::vector<double>{2}));
}

TEST_F(AggregationHandlers, NextIsTheFirstRecordAtOrAfterTheIntervalEnd)
{
    EXPECT_EQ(valuesOf(read("next", gappy, gapStart, gapEnd)), (std::vector<double>{9, 4}));
    EXPECT_EQ(valuesOf(read("nextFill", gappy, gapStart, gapEnd)), (std::vector<double>{9, 9, 4}));
}

TEST_F(AggregationHandlers, PrevNextDeliversBothSidesOfEachIntervalEnd)
{
    const std::vector<DataRecord> result = read("prevNext", gappy, gapStart, gapEnd);
    EXPECT_EQ(timesOf(result),
              (std::vector<long long>{ms("2024-05-07T11:00:00Z"), ms("2024-05-07T11:00:00.001Z"),
                                      ms("2024-05-07T13:00:00Z"), ms("2024-05-07T13:00:00.001Z")}));
    EXPECT_EQ(valuesOf(result), (std::vector<double>{7, 9, 9, 4}));
}

TEST_F(AggregationHandlers, LinearInterpolatesAtEachIntervalEnd)
{
    // 11:00 lies between 10:40 = 7 and 12:20 = 9; 13:00 between 12:20 = 9 and 13:10 = 4.
    const std::vector<DataRecord> result = read("prevNextLinear", gappy, gapStart, gapEnd);
    EXPECT_EQ(timesOf(result), (std::vector<long long>{ms("2024-05-07T11:00:00Z"), ms("2024-05-07T13:00:00Z")}));
    ASSERT_EQ(result.size(), 2u);
    EXPECT_DOUBLE_EQ(result[0].value.toDouble(), 7.4);
    EXPECT_DOUBLE_EQ(result[1].value.toDouble(), 5.0);

    const std::vector<DataRecord> filled = read("prevNextLinearFill", gappy, gapStart, gapEnd);
    ASSERT_EQ(filled.size(), 3u);
    EXPECT_DOUBLE_EQ(filled[1].value.toDouble(), 8.6);
    const std::vector<DataRecord> nulls = read("prevNextLinearFillNull", gappy, gapStart, gapEnd);
    ASSERT_EQ(nulls.size(), 3u);
    EXPECT_FALSE(nulls[1].value.isValid());
}

TEST_F(AggregationHandlers, LinearStartsFromTheFirstRecordOfTheRead)
{
    // The record before the read (09:30) only leads in: the first record of
    // the read (11:30) starts the line, so 11:00 is held back from it.
    const std::vector<DataRecord> series = {at("2024-05-07T09:30:00Z", 1), at("2024-05-07T11:30:00Z", 5),
                                            at("2024-05-07T12:30:00Z", 9), at("2024-05-07T13:30:00Z", 3)};
    EXPECT_EQ(valuesOf(read("prevNextLinear", series, gapStart, gapEnd)), (std::vector<double>{7, 6}));
    EXPECT_EQ(valuesOf(read("prevNextLinearFill", series, gapStart, gapEnd)), (std::vector<double>{5, 7, 6}));
}

TEST_F(AggregationHandlers, LinearDeliversNothingPastTheLastRecord)
{
    const std::vector<DataRecord> series(gappy.begin(), gappy.end() - 1);
    EXPECT_EQ(timesOf(read("prevNextLinearFill", series, gapStart, gapEnd)),
              (std::vector<long long>{ms("2024-05-07T11:00:00Z"), ms("2024-05-07T12:00:00Z")}));
}

// --- sums ---

TEST_F(AggregationHandlers, SumAddsTheValuesOfEachInterval)
{
    EXPECT_EQ(valuesOf(read("sum", gappy, gapStart, gapEnd)), (std::vector<double>{12, 9}));
    EXPECT_EQ(valuesOf(read("sumFill", gappy, gapStart, gapEnd)), (std::vector<double>{12, 0, 9}));
}

TEST_F(AggregationHandlers, MeterDifferencesAreSharedBetweenIntervalsInProportionToTime)
{
    // A meter that counts one unit a minute, read at uneven times.
    const std::vector<DataRecord> meter = {at("2024-05-07T10:00:00Z", 0), at("2024-05-07T10:50:00Z", 50),
                                           at("2024-05-07T11:10:00Z", 70), at("2024-05-07T12:40:00Z", 160),
                                           at("2024-05-07T13:20:00Z", 200)};
    const std::vector<DataRecord> result = read("diff", meter, gapStart, gapEnd);
    EXPECT_EQ(timesOf(result), (std::vector<long long>{ms("2024-05-07T11:00:00Z"), ms("2024-05-07T12:00:00Z"),
                                                      ms("2024-05-07T13:00:00Z")}));
    ASSERT_EQ(result.size(), 3u);
    for (const DataRecord& r : result)
        EXPECT_NEAR(r.value.toDouble(), 60.0, 1e-9);
}

TEST_F(AggregationHandlers, ShareBeforeTheFirstIntervalIsLeftOutOfTheSums)
{
    // Readings on the quarter hour, the last one before the read at 09:45.
    std::vector<DataRecord> meter;
    for (int i = 0; i <= 16; ++i)
        meter.push_back(DataRecord{ms("2024-05-07T09:45:00Z") + i * 900000LL, QVariant(1000.0 + 15.0 * i)});
    const std::vector<DataRecord> result = read("diff", meter, gapStart, gapEnd);
    ASSERT_EQ(result.size(), 3u);
    for (const DataRecord& r : result)
        EXPECT_NEAR(r.value.toDouble(), 60.0, 1e-9);
}

// --- raw records ---

TEST_F(AggregationHandlers, RawReadDeliversOnlyMatchingRecordsAndCountsThemWithoutLimit)
{
    Read r;
    r.param = request("", 0);
    Interpolate::FilterParam above6;
    above6.valueCompare = QStringLiteral("gt");
    above6.value = 6;
    r.param.filterParams = {above6};
    r.start = ms("2024-05-07T10:00:00Z");
    r.end = ms("2024-05-07T13:00:00Z");
    EXPECT_EQ(valuesOf(runRead(r, gappy)), (std::vector<double>{7, 9}));

    r.countOnly = true;
    r.limit = 1;
    const std::vector<DataRecord> counted = runRead(r, gappy);
    ASSERT_EQ(counted.size(), 1u);
    EXPECT_EQ(counted[0].value.toLongLong(), 2);
}

TEST_F(AggregationHandlers, FiltersApplyToIntervalValues)
{
    Read r;
    r.param = request("max", 3600);
    Interpolate::FilterParam above8;
    above8.valueCompare = QStringLiteral("gte");
    above8.value = 8;
    r.param.filterParams = {above8};
    r.start = ms(gapStart);
    r.end = ms(gapEnd);
    EXPECT_EQ(valuesOf(runRead(r, gappy)), (std::vector<double>{9}));
}

// --- the per-record path ---

TEST_F(AggregationHandlers, PerRecordPathAllocatesNothing)
{
    for (const char* method : {"meanA", "median", "minMax", "prevNextLinear", "diff", "count"}) {
        std::vector<DataRecord> out;
        out.reserve(64);
        int resultCount = 0;
        const long long start = ms("2024-05-07T00:00:00Z");
        Interpolate e(request(method, 3600), {}, start, start + 10 * 3600000LL, start - 3600000LL,
                      start + 20 * 3600000LL, &out, QMetaType::Double, false, resultCount, false);
        long long rs = 0;
        long long re = 0;
        ASSERT_TRUE(e.getRange(rs, re));
        long long t = rs;
        for (int i = 0; i < 3600; ++i, t += 1000)  // the first hour sizes the containers
            e.handleNextRawRecord(DataRecord{t, QVariant(double(i % 17))});

        const long long before = allocations;
        for (int i = 0; i < 3 * 3600; ++i, t += 1000)
            e.handleNextRawRecord(DataRecord{t, QVariant(double(i % 13))});
        EXPECT_EQ(allocations - before, 0) << method;
        EXPECT_GE(out.size(), 3u) << method;
    }
}

} // namespace
