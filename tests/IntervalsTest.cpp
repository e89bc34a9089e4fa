// Interval alignment and stepping, the range a read must cover, counts known
// without reading, and linear interpolation.
#include "Calendar.h"
#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <memory>

using Kel::Interpolate;
using namespace Kel::test;

namespace {

class Intervals : public ::testing::Test {
protected:
    // An engine over a series with records from first to last.
    Interpolate& engine(const char* method, long long interval, const char* start = "2024-05-07T10:17:00Z",
                        const char* end = "2024-05-07T12:40:00Z", bool alignRange = false, int offsetMin = 0)
    {
        Interpolate::InterpolateParam p = request(method, interval, alignRange);
        p.offsetMinFromUTC = offsetMin;
        built = std::make_unique<Interpolate>(p, std::vector<Interpolate::InterpolateParam>{}, ms(start), ms(end),
                                              first, last, &out, QMetaType::Double, labelAtStart, resultCount,
                                              countOnly);
        return *built;
    }

    long long aligned(long long interval, const char* time, int offsetMin = 0)
    {
        return engine("meanA", interval, time, time, false, offsetMin).alignSpecialStartTimestamp(ms(time));
    }

    // getRange's results as "readStart readEnd alignedStart alignedEnd", hh:mm.
    std::string range(Interpolate& e)
    {
        long long readStart = 0;
        long long readEnd = 0;
        if (!e.getRange(readStart, readEnd))
            return "empty";
        QStringList times;
        for (const long long t : {readStart, readEnd, e.alignedStart, e.alignedEnd}) {
            const QTime time = QDateTime::fromMSecsSinceEpoch(t, Qt::UTC).time();
            times << time.toString(time.msec() ? "hh:mm:ss.zzz" : "hh:mm");
        }
        return times.join(' ').toStdString();
    }

    long long first = ms("2024-01-01T00:00:00Z");
    long long last = ms("2024-12-31T00:00:00Z");
    bool labelAtStart = false;
    bool countOnly = false;
    std::vector<DataRecord> out;
    int resultCount = 0;
    std::unique_ptr<Interpolate> built;
};

TEST_F(Intervals, TimestampsAlignToTheStartOfTheirInterval)
{
    EXPECT_EQ(aligned(3600, "2024-05-07T10:59:59.999Z"), ms("2024-05-07T10:00:00Z"));
    EXPECT_EQ(aligned(3600, "2024-05-07T10:00:00Z"), ms("2024-05-07T10:00:00Z"));
    EXPECT_EQ(aligned(3600, "2024-05-07T10:30:00Z", 60), ms("2024-05-07T10:00:00Z"));  // fixed lengths ignore the offset
    EXPECT_EQ(aligned(-1, "2024-05-17T13:45:00Z"), ms("2024-05-17T00:00:00Z"));
    EXPECT_EQ(aligned(-1, "2024-05-17T13:45:00Z", 60), ms("2024-05-16T23:00:00Z"));
    EXPECT_EQ(aligned(-2, "2024-03-10T18:00:00Z"), ms("2024-03-04T00:00:00Z"));  // Sunday to Monday
    EXPECT_EQ(aligned(-2, "2024-03-10T18:00:00Z", -120), ms("2024-03-04T02:00:00Z"));
    EXPECT_EQ(aligned(-3, "2024-05-17T13:45:00Z"), ms("2024-05-01T00:00:00Z"));
    EXPECT_EQ(aligned(-4, "2024-05-17T13:45:00Z"), ms("2024-05-01T00:00:00Z"));  // not 1 April
    EXPECT_EQ(aligned(-5, "2024-08-17T13:45:00Z"), ms("2024-08-01T00:00:00Z"));
    EXPECT_EQ(aligned(-6, "2024-05-17T13:45:00Z"), ms("2024-01-01T00:00:00Z"));
    EXPECT_EQ(aligned(-7, "2024-05-17T13:45:00Z"), ms("2024-05-17T13:45:00Z"));
    EXPECT_EQ(engine("meanA", 3600).alignSpecialStartTimestamp(-3600001), -3600000);  // toward zero
}

TEST_F(Intervals, StepsFollowTheCalendarAndUnknownUnitsOnlyStepForward)
{
    struct Case {
        long long unit;
        const char* from;
        const char* forward;
        const char* back;
    };
    const Case cases[] = {
        {3600, "2024-02-28T05:00:00Z", "2024-02-28T06:00:00Z", "2024-02-28T04:00:00Z"},
        {-1, "2024-02-28T05:00:00Z", "2024-02-29T05:00:00Z", "2024-02-27T05:00:00Z"},
        {-2, "2024-03-04T00:00:00Z", "2024-03-11T00:00:00Z", "2024-02-26T00:00:00Z"},
        {-3, "2024-01-31T00:00:00Z", "2024-02-29T00:00:00Z", "2023-12-31T00:00:00Z"},
        {-3, "2024-03-31T00:00:00Z", "2024-04-30T00:00:00Z", "2024-02-29T00:00:00Z"},
        {-4, "2024-05-01T00:00:00Z", "2024-08-01T00:00:00Z", "2024-02-01T00:00:00Z"},
        {-5, "2024-05-01T00:00:00Z", "2024-11-01T00:00:00Z", "2023-11-01T00:00:00Z"},
        {-6, "2024-02-29T00:00:00Z", "2025-02-28T00:00:00Z", "2023-02-28T00:00:00Z"},
        {-7, "2024-05-17T13:45:00Z", "2024-05-18T13:45:00Z", "2024-05-17T13:45:00Z"},
        {0, "2024-05-17T13:45:00Z", "2024-05-17T13:45:00Z", "2024-05-17T13:45:00Z"},  // raw: no steps
    };
    for (const Case& c : cases) {
        Interpolate& e = engine("meanA", c.unit);
        long long forward = ms(c.from);
        long long back = ms(c.from);
        e.incTimestampByInterval(forward);
        e.decTimestampByInterval(back);
        EXPECT_EQ(forward, ms(c.forward)) << c.unit << " " << c.from;
        EXPECT_EQ(back, ms(c.back)) << c.unit << " " << c.from;
    }
}

TEST_F(Intervals, LinearInterpolationTakesAFirstPointAtZeroAsNoPoint)
{
    Interpolate& e = engine("meanA", 3600);
    EXPECT_DOUBLE_EQ(e.linearInterpolate(1000, 1.0, 1500, 2000, 3.0), 2.0);
    EXPECT_DOUBLE_EQ(e.linearInterpolate(1000, 1.0, 2500, 2000, 3.0), 4.0);
    EXPECT_DOUBLE_EQ(e.linearInterpolate(0, 1.0, 1500, 2000, 3.0), 3.0);
    EXPECT_DOUBLE_EQ(e.linearInterpolate(1000, 1.0, 1500, 1000, 3.0), 3.0);
}

TEST_F(Intervals, ReadStartsOneIntervalBeforeTheRangeAndIsClampedToTheSeries)
{
    EXPECT_EQ(range(engine("meanA", 3600)), "09:17 12:40 10:17 12:40");
    EXPECT_EQ(range(engine("meanA", 3600, "2024-05-07T10:17:00Z", "2024-05-07T12:40:00Z", true)),
              "09:00 13:00 10:00 13:00");
    EXPECT_EQ(built->intervalNext, ms("2024-05-07T10:00:00Z"));
    EXPECT_EQ(built->intervalStart, ms("2024-05-07T09:00:00Z"));
    EXPECT_EQ(built->outputEnd, ms("2024-05-07T13:00:00Z"));
    labelAtStart = true;
    EXPECT_EQ(range(engine("meanA", 3600, "2024-05-07T10:17:00Z", "2024-05-07T12:40:00Z", true)),
              "10:00 14:00 11:00 14:00");

    // Clamped to the series.
    labelAtStart = false;
    first = ms("2024-05-07T10:30:00Z");
    last = ms("2024-05-07T12:10:00Z");
    EXPECT_EQ(range(engine("meanA", 3600, "2024-05-07T10:17:00Z", "2024-05-07T12:40:00Z", true)),
              "10:30 12:10 11:00 13:00");
    EXPECT_TRUE(built->noPreviousRecords);
    EXPECT_TRUE(built->noRecordAfterEnd);
    EXPECT_FALSE(built->needsPreviousDataRecords());
    EXPECT_EQ(range(engine("", 0, "2024-05-07T10:17:00Z", "2024-05-07T12:40:00Z", true)), "10:30 12:10 10:30 12:40");
    EXPECT_EQ(range(engine("meanA", 3600, "2024-05-07T10:00:00Z", "2024-05-07T10:00:00Z")), "empty");
    EXPECT_EQ(range(engine("meanA", 1, "1970-01-01T00:00:00.007Z")), "10:30 12:10 10:30:00.007 12:40");
    EXPECT_EQ(range(engine("meanA", -3, "2023-11-15T00:00:00Z", "2024-09-01T00:00:00Z")), "10:30 12:10 00:00 00:00");
    EXPECT_EQ(built->alignedStart, ms("2024-05-15T00:00:00Z"));
}

TEST_F(Intervals, SpecialBoundsStandForTheSeriesEndsAndNow)
{
    first = ms("2024-05-07T10:30:00Z");
    Interpolate& e = engine("meanA", -1);
    e.rangeStart = -2;
    e.rangeEnd = -3;
    range(e);
    EXPECT_EQ(e.alignedStart, ms("2024-05-08T00:00:00Z"));  // 7 May 00:00, stepped past the first record
    EXPECT_EQ(e.alignedEnd, last);                          // an end bound is not aligned

    const long long before = Kel::detail::nowMs();
    Interpolate& recent = engine("meanA", 3600);
    recent.rangeStart = recent.rangeEnd = -1;
    range(recent);
    EXPECT_EQ(recent.alignedStart % 3600000, 0);
    EXPECT_GT(recent.alignedStart, before - 3600000);
    EXPECT_GE(recent.alignedEnd, before);
}

TEST_F(Intervals, CountIsKnownWithoutReadingOnlyWhenEveryIntervalYields)
{
    struct Case {
        const char* method;
        long long unit;
        const char* start;
        const char* end;
        long long count;
    };
    const Case cases[] = {
        {"minMaxFill", -1, "2024-01-01T00:00:00Z", "2024-01-31T00:00:00Z", 62},
        {"prevNextFill", 3600, "2024-05-07T10:00:00Z", "2024-05-07T13:00:00Z", 8},
        {"prevNextLinearFill", -1, "2024-01-01T00:00:00Z", "2024-01-03T00:00:00Z", 3},
        {"meanAFill", -2, "2024-01-01T00:00:00Z", "2024-01-31T00:00:00Z", 5},
        {"meanAFill", -3, "2024-01-15T00:00:00Z", "2024-06-01T00:00:00Z", 6},
        {"meanAFill", -4, "2024-01-15T00:00:00Z", "2024-06-01T00:00:00Z", 2},
        {"meanAFill", -5, "2024-01-15T00:00:00Z", "2024-06-01T00:00:00Z", 1},
        {"meanAFill", -6, "2022-03-01T00:00:00Z", "2024-06-01T00:00:00Z", 3},
        {"meanAFill", -7, "2022-03-01T00:00:00Z", "2024-06-01T00:00:00Z", 0},
        {"meanA", 3600, "2024-05-07T10:00:00Z", "2024-05-07T13:00:00Z", -1},
        {"", 0, "2024-05-07T10:00:00Z", "2024-05-07T13:00:00Z", -1},
    };
    for (const Case& c : cases) {
        Interpolate& e = engine(c.method, c.unit);
        e.alignedStart = ms(c.start);
        e.alignedEnd = ms(c.end);
        EXPECT_EQ(e.getFastCount(), c.count) << c.method << " " << c.unit;
    }
    Interpolate& filtered = engine("meanAFill", 3600);
    filtered.filters.push_back(Interpolate::FilterParam{});
    EXPECT_EQ(filtered.getFastCount(), -1);
}

} // namespace
