// Interval alignment and stepping, the range a read must cover, fast counts
// and linear interpolation.
#include "Calendar.h"
#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <memory>

using Kel::Interpolate;
using Kel::test::DataRecord;
using Kel::test::ms;
using Kel::test::request;

namespace {

constexpr long long kHourMs = 3600000;

class Intervals : public ::testing::Test {
protected:
    // An engine over a series that holds records all through 2024.
    Interpolate& engine(const char* method, long long interval, int offsetMin = 0, bool alignRange = false,
                        long long start = 0, long long end = 0)
    {
        built = std::make_unique<Interpolate>(request(method, interval, alignRange, offsetMin),
                                              std::vector<Interpolate::InterpolateParam>{}, start, end,
                                              first, last, &out, QMetaType::Double, labelAtStart, resultCount,
                                              countOnly);
        return *built;
    }

    long long first = ms("2024-01-01T00:00:00Z");
    long long last = ms("2024-12-31T23:00:00Z");
    bool labelAtStart = false;
    bool countOnly = false;
    std::vector<DataRecord> out;
    int resultCount = 0;
    std::unique_ptr<Interpolate> built;
};

TEST_F(Intervals, FixedIntervalsAlignDownToTheirBoundary)
{
    Interpolate& e = engine("meanA", 3600);
    EXPECT_EQ(e.alignSpecialStartTimestamp(ms("2024-05-07T10:59:59.999Z")), ms("2024-05-07T10:00:00Z"));
    EXPECT_EQ(e.alignSpecialStartTimestamp(ms("2024-05-07T10:00:00Z")), ms("2024-05-07T10:00:00Z"));
}

TEST_F(Intervals, FixedIntervalsTruncateNegativeTimestampsTowardZeroAndIgnoreTheOffset)
{
    Interpolate& e = engine("meanA", 3600, 60);
    EXPECT_EQ(e.alignSpecialStartTimestamp(-1), 0);
    EXPECT_EQ(e.alignSpecialStartTimestamp(-kHourMs - 1), -kHourMs);
    EXPECT_EQ(e.alignSpecialStartTimestamp(kHourMs + 5), kHourMs);
}

TEST_F(Intervals, CalendarUnitsAlignToTheStartOfTheirPeriodInUtc)
{
    EXPECT_EQ(engine("meanA", -1).alignSpecialStartTimestamp(ms("2024-05-17T13:45:00Z")), ms("2024-05-17T00:00:00Z"));
    // Sunday 10 March belongs to the week that started on Monday 4 March.
    EXPECT_EQ(engine("meanA", -2).alignSpecialStartTimestamp(ms("2024-03-10T18:00:00Z")), ms("2024-03-04T00:00:00Z"));
    EXPECT_EQ(engine("meanA", -3).alignSpecialStartTimestamp(ms("2024-05-17T13:45:00Z")), ms("2024-05-01T00:00:00Z"));
    EXPECT_EQ(engine("meanA", -6).alignSpecialStartTimestamp(ms("2024-05-17T13:45:00Z")), ms("2024-01-01T00:00:00Z"));
}

TEST_F(Intervals, QuartersAndHalfYearsStartOnTheFirstOfTheTimestampsOwnMonth)
{
    EXPECT_EQ(engine("meanA", -4).alignSpecialStartTimestamp(ms("2024-05-17T00:00:00Z")), ms("2024-05-01T00:00:00Z"));
    EXPECT_EQ(engine("meanA", -5).alignSpecialStartTimestamp(ms("2024-08-17T00:00:00Z")), ms("2024-08-01T00:00:00Z"));
}

TEST_F(Intervals, OffsetFromUtcShiftsCalendarBoundaries)
{
    EXPECT_EQ(engine("meanA", -1, 60).alignSpecialStartTimestamp(ms("2024-05-17T13:45:00Z")),
              ms("2024-05-16T23:00:00Z"));
    EXPECT_EQ(engine("meanA", -2, -120).alignSpecialStartTimestamp(ms("2024-03-10T18:00:00Z")),
              ms("2024-03-04T02:00:00Z"));
}

TEST_F(Intervals, UnknownUnitsAreNotAlignedAndStepForwardByADayButNeverBack)
{
    Interpolate& e = engine("meanA", -7);
    const long long t = ms("2024-05-17T13:45:00Z");
    EXPECT_EQ(e.alignSpecialStartTimestamp(t), t);
    long long forward = t;
    e.incTimestampByInterval(forward);
    EXPECT_EQ(forward, t + 86400000);
    long long back = t;
    e.decTimestampByInterval(back);
    EXPECT_EQ(back, t);
}

TEST_F(Intervals, RawReadingNeitherAlignsNorSteps)
{
    Interpolate& e = engine("meanA", 0);
    const long long t = ms("2024-05-17T13:45:00Z");
    long long forward = t;
    long long back = t;
    e.incTimestampByInterval(forward);
    e.decTimestampByInterval(back);
    EXPECT_EQ(e.alignSpecialStartTimestamp(t), t);
    EXPECT_EQ(forward, t);
    EXPECT_EQ(back, t);
}

TEST_F(Intervals, CalendarStepsFollowTheCalendar)
{
    struct Case {
        long long unit;
        const char* from;
        const char* forward;
        const char* back;
    };
    const Case cases[] = {
        {-1, "2024-02-28T05:00:00Z", "2024-02-29T05:00:00Z", "2024-02-27T05:00:00Z"},
        {-2, "2024-03-04T00:00:00Z", "2024-03-11T00:00:00Z", "2024-02-26T00:00:00Z"},
        {-3, "2024-01-31T00:00:00Z", "2024-02-29T00:00:00Z", "2023-12-31T00:00:00Z"},
        {-3, "2024-03-31T00:00:00Z", "2024-04-30T00:00:00Z", "2024-02-29T00:00:00Z"},
        {-4, "2024-05-01T00:00:00Z", "2024-08-01T00:00:00Z", "2024-02-01T00:00:00Z"},
        {-5, "2024-05-01T00:00:00Z", "2024-11-01T00:00:00Z", "2023-11-01T00:00:00Z"},
        {-6, "2024-02-29T00:00:00Z", "2025-02-28T00:00:00Z", "2023-02-28T00:00:00Z"},
    };
    for (const Case& c : cases) {
        Interpolate& e = engine("meanA", c.unit);
        long long forward = ms(c.from);
        long long back = ms(c.from);
        e.incTimestampByInterval(forward);
        e.decTimestampByInterval(back);
        EXPECT_EQ(forward, ms(c.forward)) << "unit " << c.unit << " from " << c.from;
        EXPECT_EQ(back, ms(c.back)) << "unit " << c.unit << " from " << c.from;
    }
}

TEST_F(Intervals, AdvancingTheIntervalKeepsItsStart)
{
    Interpolate& e = engine("meanA", -3);
    e.intervalNext = ms("2024-01-31T00:00:00Z");
    e.incIntervalNextTimestamp();
    EXPECT_EQ(e.intervalStart, ms("2024-01-31T00:00:00Z"));
    EXPECT_EQ(e.intervalNext, ms("2024-02-29T00:00:00Z"));
}

TEST_F(Intervals, LinearInterpolationTakesAFirstPointAtZeroAsNoPoint)
{
    Interpolate& e = engine("meanA", 3600);
    EXPECT_DOUBLE_EQ(e.linearInterpolate(1000, 1.0, 1500, 2000, 3.0), 2.0);
    EXPECT_DOUBLE_EQ(e.linearInterpolate(0, 1.0, 1500, 2000, 3.0), 3.0);
    EXPECT_DOUBLE_EQ(e.linearInterpolate(1000, 1.0, 1500, 1000, 3.0), 3.0);
    EXPECT_DOUBLE_EQ(e.linearInterpolate(1000, 1.0, 2500, 2000, 3.0), 4.0);
}

// --- getRange ---

TEST_F(Intervals, ReadStartsOneIntervalBeforeTheRangeWhoseBoundsStayAsGiven)
{
    Interpolate& e = engine("meanA", 3600, 0, false, ms("2024-05-07T10:17:00Z"), ms("2024-05-07T12:40:00Z"));
    long long readStart = 0;
    long long readEnd = 0;
    ASSERT_TRUE(e.getRange(readStart, readEnd));
    EXPECT_EQ(readStart, ms("2024-05-07T09:17:00Z"));
    EXPECT_EQ(readEnd, ms("2024-05-07T12:40:00Z"));
    EXPECT_EQ(e.outputEnd, ms("2024-05-07T12:40:00Z"));
    EXPECT_EQ(e.intervalNext, ms("2024-05-07T10:17:00Z"));
    EXPECT_EQ(e.intervalStart, ms("2024-05-07T09:17:00Z"));
    EXPECT_EQ(e.readStart, readStart);
    EXPECT_EQ(e.readEnd, readEnd);
}

TEST_F(Intervals, AlignedRangeCoversWholeIntervalsAndEndsOneIntervalLater)
{
    Interpolate& e = engine("meanA", 3600, 0, true, ms("2024-05-07T10:17:00Z"), ms("2024-05-07T12:40:00Z"));
    long long readStart = 0;
    long long readEnd = 0;
    ASSERT_TRUE(e.getRange(readStart, readEnd));
    EXPECT_EQ(e.alignedStart, ms("2024-05-07T10:00:00Z"));
    EXPECT_EQ(e.alignedEnd, ms("2024-05-07T13:00:00Z"));
    EXPECT_EQ(readStart, ms("2024-05-07T09:00:00Z"));
    EXPECT_EQ(readEnd, ms("2024-05-07T13:00:00Z"));
}

TEST_F(Intervals, TwoResultsPerIntervalMayEndOneMillisecondAfterTheRange)
{
    const long long s = ms("2024-05-07T10:00:00Z");
    const long long e = ms("2024-05-07T12:00:00Z");
    long long rs = 0;
    long long re = 0;
    struct Case {
        const char* method;
        long long extra;
    };
    for (const Case& c : {Case{"prevNext", 1}, Case{"prevNextLinear", 0}, Case{"minMax", 1},
                          Case{"minMaxAverage", 0}, Case{"max", 0}}) {
        Interpolate& engineUnderTest = engine(c.method, 3600, 0, false, s, e);
        ASSERT_TRUE(engineUnderTest.getRange(rs, re));
        EXPECT_EQ(engineUnderTest.outputEnd, e + c.extra) << c.method;
    }
}

TEST_F(Intervals, LabelsAtIntervalStartShiftTheRangeOneIntervalForward)
{
    labelAtStart = true;
    Interpolate& e = engine("meanA", 3600, 0, true, ms("2024-05-07T10:17:00Z"), ms("2024-05-07T12:40:00Z"));
    long long readStart = 0;
    long long readEnd = 0;
    ASSERT_TRUE(e.getRange(readStart, readEnd));
    EXPECT_EQ(readStart, ms("2024-05-07T10:00:00Z"));
    EXPECT_EQ(readEnd, ms("2024-05-07T14:00:00Z"));
    EXPECT_EQ(e.alignedStart, ms("2024-05-07T11:00:00Z"));
    EXPECT_EQ(e.alignedEnd, ms("2024-05-07T14:00:00Z"));
}

TEST_F(Intervals, RangeIsClampedToTheSeriesAndRemembersWhatIsMissing)
{
    first = ms("2024-05-07T10:30:00Z");
    last = ms("2024-05-07T12:10:00Z");
    Interpolate& e = engine("meanA", 3600, 0, true, ms("2024-05-07T10:17:00Z"), ms("2024-05-07T12:40:00Z"));
    long long readStart = 0;
    long long readEnd = 0;
    ASSERT_TRUE(e.getRange(readStart, readEnd));
    EXPECT_EQ(e.alignedStart, ms("2024-05-07T11:00:00Z"));  // stepped forward past the first record
    EXPECT_EQ(readStart, first);
    EXPECT_EQ(readEnd, last);
    EXPECT_TRUE(e.noPreviousRecords);
    EXPECT_TRUE(e.noRecordAfterEnd);
    EXPECT_FALSE(e.needsPreviousDataRecords());
}

TEST_F(Intervals, StartFarBeforeTheSeriesStepsToTheFirstBoundaryAtOrAfterIt)
{
    first = ms("2024-05-07T10:30:00Z");
    Interpolate& fixed = engine("meanA", 1, 0, false, 7, ms("2024-05-07T12:00:00Z"));
    long long rs = 0;
    long long re = 0;
    ASSERT_TRUE(fixed.getRange(rs, re));
    EXPECT_EQ(fixed.alignedStart, ms("2024-05-07T10:30:00Z") + 7);

    Interpolate& monthly = engine("meanA", -3, 0, false, ms("2023-11-15T00:00:00Z"), ms("2024-09-01T00:00:00Z"));
    ASSERT_TRUE(monthly.getRange(rs, re));
    EXPECT_EQ(monthly.alignedStart, ms("2024-05-15T00:00:00Z"));
}

TEST_F(Intervals, RawReadingStartsAtTheFirstRecordAndReadsExactlyTheRange)
{
    first = ms("2024-05-07T10:30:00Z");
    Interpolate& e = engine("", 0, 0, true, ms("2024-05-07T10:17:00Z"), ms("2024-05-07T12:40:00Z"));
    long long readStart = 0;
    long long readEnd = 0;
    ASSERT_TRUE(e.getRange(readStart, readEnd));
    EXPECT_EQ(readStart, first);
    EXPECT_EQ(readEnd, ms("2024-05-07T12:40:00Z"));
}

TEST_F(Intervals, EmptyRangeReadsNothing)
{
    first = ms("2024-05-07T10:30:00Z");
    Interpolate& e = engine("meanA", 3600, 0, false, ms("2024-05-07T10:00:00Z"), ms("2024-05-07T10:00:00Z"));
    long long readStart = 0;
    long long readEnd = 0;
    EXPECT_FALSE(e.getRange(readStart, readEnd));
}

TEST_F(Intervals, SpecialBoundsStandForTheSeriesEndsAndNow)
{
    first = ms("2024-05-07T10:30:00Z");
    last = ms("2024-06-07T10:30:00Z");
    long long rs = 0;
    long long re = 0;
    Interpolate& series = engine("meanA", -1, 0, false, -2, -3);
    ASSERT_TRUE(series.getRange(rs, re));
    EXPECT_EQ(series.alignedStart, ms("2024-05-08T00:00:00Z"));  // 7 May 00:00, stepped past the first record
    EXPECT_EQ(series.alignedEnd, last);                         // an end bound is not aligned

    last = Kel::detail::nowMs();
    Interpolate& recent = engine("meanA", 3600, 0, false, -3, -1);
    ASSERT_TRUE(recent.getRange(rs, re));
    EXPECT_EQ(recent.alignedStart % kHourMs, 0);
    EXPECT_GE(recent.alignedEnd, last);
}

// --- getFastCount ---

TEST_F(Intervals, FastCountCountsIntervalsTimesResultsPerInterval)
{
    Interpolate& daily = engine("minMaxFill", -1);
    daily.alignedStart = ms("2024-01-01T00:00:00Z");
    daily.alignedEnd = ms("2024-01-31T00:00:00Z");
    EXPECT_EQ(daily.getFastCount(), 62);

    Interpolate& hourly = engine("prevNextFill", 3600);
    hourly.alignedStart = ms("2024-05-07T10:00:00Z");
    hourly.alignedEnd = ms("2024-05-07T13:00:00Z");
    EXPECT_EQ(hourly.getFastCount(), 8);
}

TEST_F(Intervals, FastCountOfCalendarUnitsCountsCalendarPeriods)
{
    struct Case {
        const char* method;
        long long unit;
        const char* start;
        const char* end;
        long long count;
    };
    const Case cases[] = {
        {"meanAFill", -2, "2024-01-01T00:00:00Z", "2024-01-31T00:00:00Z", 5},
        {"meanAFill", -3, "2024-01-15T00:00:00Z", "2024-06-01T00:00:00Z", 6},
        {"meanAFill", -4, "2024-01-15T00:00:00Z", "2024-06-01T00:00:00Z", 2},
        {"meanAFill", -5, "2024-01-15T00:00:00Z", "2024-06-01T00:00:00Z", 1},
        {"meanAFill", -6, "2022-03-01T00:00:00Z", "2024-06-01T00:00:00Z", 3},
        {"meanAFill", -7, "2022-03-01T00:00:00Z", "2024-06-01T00:00:00Z", 0},
        {"prevNextLinearFill", -1, "2024-01-01T00:00:00Z", "2024-01-03T00:00:00Z", 3},
    };
    for (const Case& c : cases) {
        Interpolate& e = engine(c.method, c.unit);
        e.alignedStart = ms(c.start);
        e.alignedEnd = ms(c.end);
        EXPECT_EQ(e.getFastCount(), c.count) << c.method << " " << c.unit;
    }
}

TEST_F(Intervals, FastCountIsUnknownWithoutFillWithFiltersOrForRawRecords)
{
    EXPECT_EQ(engine("meanA", 3600).getFastCount(), -1);
    EXPECT_EQ(engine("", 0).getFastCount(), -1);
    Interpolate::InterpolateParam filtered = request("meanAFill", 3600);
    filtered.filterParams.push_back(Interpolate::FilterParam{});
    Interpolate e(filtered, {}, 0, 0, first, last, &out, QMetaType::Double, false, resultCount, false);
    EXPECT_EQ(e.getFastCount(), -1);
}

TEST_F(Intervals, KnownCountIsStoredByGetRangeAndNotRaisedByFinalize)
{
    countOnly = true;
    Interpolate& e = engine("meanAFill", 3600, 0, false, ms("2024-05-07T10:00:00Z"), ms("2024-05-07T13:00:00Z"));
    long long rs = 0;
    long long re = 0;
    ASSERT_TRUE(e.getRange(rs, re));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].timestamp, 0);
    EXPECT_EQ(out[0].value.toLongLong(), 4);
    e.finalize();
    EXPECT_EQ(out[0].value.toLongLong(), 4);
}

} // namespace
