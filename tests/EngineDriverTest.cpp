// The engine driver: chains of engines, the result limit, count-only reads,
// conversion of interval values to the series' type, errors, and what the
// engine asks its reader for.
#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <limits>
#include <tuple>
#include <memory>

using Kel::Interpolate;
using namespace Kel::test;

namespace {

using Params = std::vector<Interpolate::InterpolateParam>;

class EngineDriver : public ::testing::Test {
protected:
    // Records of value 1 every 10 s from 10:00 to 12:59:50.
    static std::vector<DataRecord> tenSecondOnes()
    {
        std::vector<DataRecord> series;
        for (long long t = ms("2024-05-07T10:00:00Z"); t < ms("2024-05-07T13:00:00Z"); t += 10000)
            series.push_back(DataRecord{t, QVariant(1.0)});
        return series;
    }

    static Read chained(Params chain, const char* method = "meanA", bool countOnly = false)
    {
        return Read{request(method, 3600), std::move(chain), ms("2024-05-07T11:00:00Z"), ms("2024-05-07T12:00:00Z"),
                    false, countOnly};
    }

    // An hourly engine over 10:00 to 12:00 whose range is set up.
    Interpolate& engine(const char* method = "meanA", QMetaType::Type type = QMetaType::Double,
                        bool countOnly = false)
    {
        out.clear();
        resultCount = 0;
        built = std::make_unique<Interpolate>(request(method, 3600), Params{}, ms("2024-05-07T10:00:00Z"),
                                              ms("2024-05-07T12:00:00Z"), ms("2024-01-01T00:00:00Z"),
                                              ms("2024-12-01T00:00:00Z"), &out, type, false, resultCount, countOnly);
        setUpRange(*built);
        return *built;
    }

    // What an interval value becomes in a series of the given type.
    QVariant stored(QMetaType::Type type, double v)
    {
        engine("meanA", type).pushIntervalValue(ms("2024-05-07T11:00:00Z"), v, false);
        return out.back().value;
    }

    const std::vector<DataRecord> hourly = {at("09:30", 9), at("10:30", 10), at("11:30", 11), at("12:30", 12)};
    std::vector<DataRecord> out;
    int resultCount = 0;
    std::unique_ptr<Interpolate> built;
};

TEST_F(EngineDriver, ChainRunsTheFurtherParametersFirstAndTheGivenOneLast)
{
    std::vector<DataRecord> records;
    int limit = 5;
    Interpolate e(request("meanA", 3600), {request("count", 60), request("sum", 600)}, 0, 0, 0, 0, &records,
                  QMetaType::Double, true, limit, false);
    ASSERT_TRUE(e.next && e.next->next);
    EXPECT_EQ(e.next->next->next, nullptr);
    EXPECT_EQ((std::vector<Interpolate::InterpolateMethod>{e.method, e.next->method, e.next->next->method}),
              (std::vector<Interpolate::InterpolateMethod>{Interpolate::COUNT, Interpolate::SUM, Interpolate::MEAN_A}));
    // Only the first holds the limit; only the last labels at interval start.
    EXPECT_EQ((std::vector<int>{e.limit, e.next->limit, e.next->next->limit, limit}), (std::vector<int>{5, 0, 0, 0}));
    EXPECT_EQ((std::vector<bool>{e.labelAtIntervalStart, e.next->labelAtIntervalStart,
                                 e.next->next->labelAtIntervalStart}),
              (std::vector<bool>{false, false, true}));

    // Counting 6 records a minute, summing to 60 per 10 minutes, averaging per
    // hour gives 60; the other way round it would give 1.
    Read read = chained({request("count", 60), request("sum", 600)});
    EXPECT_EQ(show(runRead(read, tenSecondOnes())), "12:00=60");
}

TEST_F(EngineDriver, LimitStopsASingleEngineButNotAChain)
{
    Read single = chained({});
    single.start = ms("2024-05-07T10:00:00Z");
    single.end = ms("2024-05-07T13:00:00Z");
    EXPECT_EQ(show(runRead(single, hourly)), "10:00=9 11:00=10 12:00=11 13:00=12");
    EXPECT_EQ(single.resultCount, 0);

    // The read stops at the first stored result (count 1, two records fed);
    // finalize then closes the interval that reached the limit once more,
    // and the count takes it in.
    single.resultCount = 1;
    single.recordsFed = 0;
    EXPECT_EQ(show(runRead(single, hourly)), "10:00=9 10:00=9");
    EXPECT_EQ(single.resultCount, 2);
    EXPECT_EQ(single.recordsFed, 2);

    Read chain = single;
    chain.chain = {request("prev", 1800)};
    chain.resultCount = 1;
    EXPECT_EQ(show(runRead(chain, hourly)), "11:00=9 12:00=10 13:00=11");
    EXPECT_EQ(chain.resultCount, 0);
}

TEST_F(EngineDriver, CountOnlyKeepsOneCountRecordPerEngineAndCountsInTheFirst)
{
    engine("meanA", QMetaType::Double, true);
    EXPECT_EQ(show(out), "23:59:59.999=null");  // at -1, before any count

    Read read = chained({request("count", 60), request("sum", 600)}, "meanA", true);
    EXPECT_EQ(show(runRead(read, tenSecondOnes())), "23:59:59.999=1 23:59:59.999=null 23:59:59.999=null");

    // A count known without reading is the last engine's, set by getRange
    // and not raised by finalize; nothing is read.
    read = chained({request("count", 60)}, "meanAFill", true);
    EXPECT_EQ(show(runRead(read, tenSecondOnes())), "00:00=2 23:59:59.999=null");
    EXPECT_EQ(read.recordsFed, 0);
    read = chained({}, "meanAFill", true);
    read.start = ms("2024-05-07T10:00:00Z");
    read.end = ms("2024-05-07T13:00:00Z");
    EXPECT_EQ(show(runRead(read, tenSecondOnes())), "00:00=4");
}

TEST_F(EngineDriver, IntervalValuesAreTruncatedAndCutToTheSeriesTypeAndNaNsLogged)
{
    EXPECT_EQ(stored(QMetaType::Bool, 0.5), QVariant(false));
    EXPECT_EQ(stored(QMetaType::Bool, 0.5000001), QVariant(true));
    EXPECT_EQ(stored(QMetaType::Int, -2.9), QVariant(-2));
    EXPECT_EQ(stored(QMetaType::UInt, -1.0), QVariant(4294967295u));
    EXPECT_EQ(stored(QMetaType::LongLong, 1e15 + 0.7), QVariant(qlonglong(1000000000000000LL)));
    EXPECT_EQ(stored(QMetaType::ULongLong, 9223372036854775808.0), QVariant(qulonglong(9223372036854775808ULL)));
    EXPECT_EQ(stored(QMetaType::Double, 0.125), QVariant(0.125));
    EXPECT_EQ(stored(QMetaType::Short, 40000.0), QVariant(-25536));
    EXPECT_EQ(stored(QMetaType::Char, 200.0), QVariant(-56));
    EXPECT_EQ(stored(QMetaType::UShort, -1.0), QVariant(65535));
    EXPECT_EQ(stored(QMetaType::UChar, -1.9), QVariant(255));
    EXPECT_EQ(stored(QMetaType::Float, 0.25), QVariant(0.25f));

    // NaN, infinity and a type without numbers are logged.
    LogCapture log;
    EXPECT_EQ(stored(QMetaType::Int, std::numeric_limits<double>::quiet_NaN()), QVariant(0));
    EXPECT_EQ(stored(QMetaType::Double, -std::numeric_limits<double>::infinity()), QVariant(0.0));
    EXPECT_FALSE(stored(QMetaType::QString, 3.0).isValid());
    ASSERT_EQ(log.entries.size(), 3u);
    const QString ts = QString::number(ms("2024-05-07T11:00:00Z"));
    EXPECT_EQ(log.entries[0].message, "Interval double value is NaN (TS:" + ts);
    EXPECT_EQ(log.entries[1].message, "Interval double value is Inf (TS:" + ts);
    EXPECT_EQ(log.entries[2].message, QStringLiteral("pushIntervalValue: Invalid target value type QString"));
    EXPECT_EQ((std::vector<int>{log.entries[0].level, log.entries[1].level, log.entries[2].level}),
              (std::vector<int>{4, 4, 2}));
    EXPECT_EQ(log.entries[0].sourceFile, QStringLiteral("lib/KelTSFileStorage/src/Interpolate"));
}

TEST_F(EngineDriver, ValuesPastTheOutputEndAreDroppedAndReadingGoesOn)
{
    Interpolate& e = engine("meanAFill");
    EXPECT_THROW(e.pushIntervalValue(ms("2024-05-07T12:00:00.001Z"), 1.0, false), std::out_of_range);
    EXPECT_TRUE(e.handleNextRawRecord(at("10:30", 4)));
    EXPECT_TRUE(e.handleNextRawRecord(at("18:00", 8)));
    e.pushIntervalValue(ms("2024-05-07T11:00:00Z"), 1.0, true);
    EXPECT_EQ(show(out), "10:00=0 11:00=4 12:00=0 11:00=null");
}

TEST_F(EngineDriver, UnexpectedErrorIsLoggedAndStopsTheRead)
{
    LogCapture log;
    Interpolate e(request("", 0), {}, 0, ms("2024-05-07T12:00:00Z"), 0, ms("2024-05-07T12:00:00Z"), &out,
                  QMetaType::Double, false, resultCount, true);
    ASSERT_TRUE(setUpRange(e));
    out.clear();  // the count record is gone
    EXPECT_FALSE(e.handleNextRawRecord(at("10:30", 1)));
    EXPECT_FALSE(e.handleNextRawRecord(at("10:40", 1)));
    ASSERT_EQ(log.entries.size(), 1u);
    EXPECT_TRUE(log.entries[0].message.startsWith("Interpolate exception 'vector::_M_range_check"));
}

TEST_F(EngineDriver, NeighbouringRecordsAreAskedForByMethodAndModifiers)
{
    // method, record before the range, record after it
    const std::tuple<const char*, long long, bool, bool> cases[] = {
        {"prevNext", 60, true, true},   {"prevNextLinear", 60, true, true}, {"prev", 60, true, false},
        {"prevLinear", 60, true, true}, {"next", 60, false, true},          {"nextLinear", 60, true, true},
        {"sum", 60, false, false},      {"sumLinear", 60, true, true},      {"diffSum", 60, true, false},
        {"meanA", 60, false, false},    {"minLinear", 60, false, false},    {"", 0, false, false},
        {"diff", 0, true, false},
    };
    for (const auto& [method, interval, previous, after] : cases) {
        Interpolate e(request(method, interval), {}, 0, 0, 0, 0, &out, QMetaType::Double, false, resultCount, false);
        EXPECT_EQ(e.needsPreviousDataRecords(), previous) << method;
        EXPECT_EQ(e.needsDataRecordAfterRangeEnd(), after) << method;
    }
    Interpolate chain(request("meanA", 3600), {request("prevNextLinearFill", 900)}, 0, 0, 0, 0, &out,
                      QMetaType::Double, false, resultCount, false);
    EXPECT_TRUE(chain.needsPreviousDataRecords());
    EXPECT_TRUE(chain.needsDataRecordAfterRangeEnd());
}

TEST_F(EngineDriver, RawRecordsPassThroughOnlyWhenNothingTouchesThem)
{
    const auto passes = [this](Interpolate::InterpolateParam p, Params chain, int limit, bool countOnly) {
        int count = limit;
        return Interpolate(p, chain, 0, 0, 0, 0, &out, QMetaType::Double, false, count, countOnly)
            .passesRawRecordsThrough();
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

TEST_F(EngineDriver, RecordsReachTheHandlerBeforeAnyRangeIsSetButNotAfterAnEmptyOne)
{
    Interpolate raw(request("", 0), {}, 0, ms("2024-05-07T12:00:00Z"), 0, 0, &out, QMetaType::Double, false,
                    resultCount, false);
    EXPECT_TRUE(raw.handleNextRawRecord(at("10:30", 4)));
    EXPECT_EQ(show(out), "10:30=4");

    out.clear();
    // A range that ends before it starts: nothing to read, nothing to close.
    Interpolate empty(request("meanAFill", 3600), {}, ms("2024-05-07T13:00:00Z"), ms("2024-05-07T12:00:00Z"),
                      ms("2024-05-07T08:00:00Z"), ms("2024-05-07T09:00:00Z"), &out, QMetaType::Double, false,
                      resultCount, false);
    EXPECT_FALSE(setUpRange(empty));
    empty.finalize();
    EXPECT_TRUE(out.empty());
}
