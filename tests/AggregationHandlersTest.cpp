// The aggregation methods, each read hourly over a small series the way the
// storage reads: which interval a record belongs to, what an interval is
// worth, and what intervals without records yield.
#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

using Kel::Interpolate;
using namespace Kel::test;

// Counts heap allocations. Every plain form of new and delete is replaced, so
// that memory from any of them is released the way it was taken.
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

class AggregationHandlers : public ::testing::Test {
protected:
    // Hourly results for the interval ends 11:00 to 13:00.
    std::string read(const char* method, const std::vector<DataRecord>& series, bool countOnly = false)
    {
        Read r{request(method, 3600), {}, ms("2024-05-07T11:00:00Z"), ms("2024-05-07T13:00:00Z"), false, countOnly};
        return show(runRead(r, series));
    }

    // The result for 11:00 of values a minute apart from 10:05.
    std::string hour(const char* method, const std::vector<double>& values)
    {
        std::vector<DataRecord> series;
        for (std::size_t i = 0; i < values.size(); ++i)
            series.push_back(DataRecord{ms("2024-05-07T10:05:00Z") + static_cast<long long>(i) * 60000,
                                        QVariant(values[i])});
        return read(method, series);
    }

    // Two records in the first hour, none in the second, one in the third;
    // one before the range and one after it.
    const std::vector<DataRecord> gappy = {at("09:50", 3), at("10:15", 5), at("10:40", 7), at("12:20", 9),
                                           at("13:10", 4)};
};

TEST_F(AggregationHandlers, EachMethodOverTheIntervalsOfASeries)
{
    const std::vector<DataRecord> extremes = {at("10:10", 5), at("10:20", 2), at("10:40", 2), at("10:50", 7),
                                              at("10:55", 7), at("11:20", 3), at("11:30", kNaN)};
    const std::vector<DataRecord> twoHours = {at("10:10", 1), at("10:20", 1), at("10:30", 2), at("11:10", 8)};
    std::vector<DataRecord> quarters;  // a meter read on the quarter hour
    for (int i = 0; i <= 16; ++i)
        quarters.push_back(DataRecord{ms("2024-05-07T09:45:00Z") + i * 900000LL, QVariant(1000.0 + 15.0 * i)});
    const struct {
        const char* method;
        std::vector<DataRecord> series;
        const char* expected;
    } cases[] = {
        // A record exactly at an interval end belongs to the next interval.
        {"count", {at("10:00", 1), at("10:30", 1), at("11:00", 1), at("12:59:59.999", 1)}, "11:00=2 12:00=1 13:00=1"},
        // Empty intervals yield nothing, zero or null.
        {"count", gappy, "11:00=2 13:00=1"},
        {"countFill", gappy, "11:00=2 12:00=0 13:00=1"},
        {"countFillNull", gappy, "11:00=2 12:00=null 13:00=1"},
        {"sum", gappy, "11:00=12 13:00=9"},
        {"sumFill", gappy, "11:00=12 12:00=0 13:00=9"},
        // Extremes are stamped where they happened, the earliest of equal
        // ones, unless aligned; NaN never replaces one.
        {"min", extremes, "10:20=2 11:20=3"},
        {"max", extremes, "10:50=7 11:20=3"},
        {"minAlign", extremes, "11:00=2 12:00=3"},
        {"maxFill", gappy, "10:40=7 12:00=7 12:20=9"},
        {"maxFillNull", gappy, "10:40=7 12:00=null 12:20=9"},
        // minMax: the minimum at the interval end, the maximum 1 ms later.
        {"minMax", gappy, "11:00=5 11:00:00.001=7 13:00=9 13:00:00.001=9"},
        {"minMaxFill", gappy, "11:00=5 11:00:00.001=7 12:00=5 12:00:00.001=7 13:00=9 13:00:00.001=9"},
        {"minMaxAverage", gappy, "11:00=6 13:00=9"},
        // The median and the mode start afresh in each interval.
        {"median", twoHours, "11:00=1 12:00=8"},
        {"mode", twoHours, "11:00=1 12:00=8"},
        // prev holds, next looks ahead, prevNext gives both.
        {"prev", gappy, "11:00=7 13:00=9"},
        {"prevFill", gappy, "11:00=7 12:00=7 13:00=9"},
        {"prev", {at("10:30", 1), at("11:00", 2), at("11:30", 3), at("12:30", 4)}, "11:00=2 12:00=3 13:00=4"},
        {"next", gappy, "11:00=9 13:00=4"},
        {"nextFill", gappy, "11:00=9 12:00=9 13:00=4"},
        {"prevNext", gappy, "11:00=7 11:00:00.001=9 13:00=9 13:00:00.001=4"},
        // Linear at each interval end (11:00 between 10:40 = 7 and 12:20 = 9,
        // 13:00 between 12:20 = 9 and 13:10 = 4), never past the last record.
        {"prevNextLinear", gappy, "11:00=7.4 13:00=5"},
        {"prevNextLinearFill", gappy, "11:00=7.4 12:00=8.6 13:00=5"},
        {"prevNextLinearFillNull", gappy, "11:00=7.4 12:00=null 13:00=5"},
        {"prevNextLinearFill", {gappy.begin(), gappy.end() - 1}, "11:00=7.4 12:00=8.6"},
        // 09:30 only leads in; 11:30, the first record read, starts the line,
        // so 11:00 is held back from it when filled.
        {"prevNextLinear", {at("09:30", 1), at("11:30", 5), at("12:30", 9), at("13:30", 3)}, "12:00=7 13:00=6"},
        {"prevNextLinearFill", {at("09:30", 1), at("11:30", 5), at("12:30", 9), at("13:30", 3)},
         "11:00=5 12:00=7 13:00=6"},
        // A meter counting a unit a minute, read at uneven times and on the
        // quarter hour: differences are shared between intervals in proportion
        // to time; without linear each counts whole in the hour of its record.
        {"diff", {at("10:00", 0), at("10:50", 50), at("11:10", 70), at("12:40", 160), at("13:20", 200)},
         "11:00=60 12:00=60 13:00=60"},
        {"diff", quarters, "11:00=60 12:00=60 13:00=60"},
        {"diffSum", {at("10:00", 0), at("10:50", 50), at("11:10", 70), at("12:40", 160)}, "11:00=50 12:00=20 13:00=90"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(read(c.method, c.series), c.expected) << c.method;
}

TEST_F(AggregationHandlers, FilledReadsYieldAsManyResultsAsTheKnownCount)
{
    for (const char* method : {"countFill", "meanAFill", "prevNextFill", "prevFill", "nextFill", "minMaxFill",
                               "minMaxAverageFill", "maxFill", "sumFill", "medianFill", "modeFill"}) {
        const std::string results = read(method, gappy);
        const long long stored = std::count(results.begin(), results.end(), '=');
        EXPECT_EQ(read(method, gappy, true), "00:00=" + std::to_string(stored)) << method;
    }
}

TEST_F(AggregationHandlers, ValueOfAnHourFromItsRecords)
{
    const struct {
        const char* method;
        std::vector<double> values;
        const char* expected;
    } cases[] = {
        {"meanA", {1, 2, 3, 6}, "11:00=3"},
        {"meanG", {1, 4, 16}, "11:00=4"},
        {"meanH", {1, 4, 4}, "11:00=2"},
        {"meanS", {1, 7}, "11:00=5"},
        // Zero acts as one in the geometric mean and drops out of the harmonic sum.
        {"meanG", {0, 4}, "11:00=2"},
        {"meanH", {0, 1, 1}, "11:00=1.5"},
        {"meanH", {0, 0}, ""},
        {"meanHFillNull", {0, 0}, "11:00=null 12:00=null 13:00=null"},
        // The median is the lower middle value, NaN left out; the mode the
        // smallest of the most frequent.
        {"median", {9, 1, 5}, "11:00=5"},
        {"median", {9, 1, 5, 7}, "11:00=5"},
        {"median", {3, kNaN, 8, 1}, "11:00=3"},
        {"mode", {2, 7, 7, 2, 7}, "11:00=7"},
        {"mode", {9, 4, 9, 4}, "11:00=4"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(hour(c.method, c.values), c.expected) << c.method;
}

TEST_F(AggregationHandlers, FiltersChooseRawRecordsAndIntervalValues)
{
    Interpolate::FilterParam above6;
    above6.valueCompare = QStringLiteral("gt");
    above6.value = 6;
    Read raw{request("", 0), {}, ms("2024-05-07T10:00:00Z"), ms("2024-05-07T13:00:00Z")};
    raw.param.filterParams = {above6};
    EXPECT_EQ(show(runRead(raw, gappy)), "10:40=7 12:20=9");

    raw.countOnly = true;
    raw.resultCount = 1;  // counting takes no limit
    EXPECT_EQ(show(runRead(raw, gappy)), "23:59:59.999=2");

    Read means = raw;
    means.param.method = QStringLiteral("meanA");
    means.param.interval = 3600;
    means.countOnly = false;
    means.resultCount = 0;
    EXPECT_EQ(show(runRead(means, gappy)), "13:00=9");
}

TEST_F(AggregationHandlers, PerRecordPathAllocatesNothing)
{
    for (const char* method : {"meanA", "median", "minMax", "prevNextLinear", "diff", "count"}) {
        std::vector<DataRecord> out;
        out.reserve(64);
        int resultCount = 0;
        const long long start = ms("2024-05-07T00:00:00Z");
        Interpolate e(request(method, 3600), {}, start, start + 10 * 3600000LL, start - 3600000LL,
                      start + 20 * 3600000LL, &out, QMetaType::Double, false, resultCount, false);
        long long t = 0;
        long long end = 0;
        ASSERT_TRUE(e.getRange(t, end));
        for (int i = 0; i < 3600; ++i, t += 1000)  // the first hour sizes the containers
            e.handleNextRawRecord(DataRecord{t, QVariant(double(i % 17))});

        const long before = allocations;
        for (int i = 0; i < 3 * 3600; ++i, t += 1000)
            e.handleNextRawRecord(DataRecord{t, QVariant(double(i % 13))});
        EXPECT_EQ(allocations - before, 0) << method;
        EXPECT_GE(out.size(), 3u) << method;
    }
}

} // namespace

// An engine that is given no record (a file whose records lie outside its
// period can do that to a read) passes over the empty intervals of a filled
// read at once: one by one, eight millennia of minutes never ended.
TEST(AggregationHandlersLongRange, FilledSamplingWithoutRecordsEndsAtOnce)
{
    const long long start = ms("1000-01-01T00:00:00Z");
    const long long end = ms("9000-01-01T00:00:00Z");
    for (const char* method : {"prevFill", "nextFill", "prevNextFillNull"}) {
        std::vector<DataRecord> out;
        int limit = 40;
        Interpolate engine(request(method, 60), {}, start, end, start, end, &out, QMetaType::Double, false, limit,
                           false);
        setUpRange(engine);
        engine.finalize();
        EXPECT_EQ(show(out), "") << method;
    }
}
