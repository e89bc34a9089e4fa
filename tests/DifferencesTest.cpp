// The difference pre-stage: plain differences, and counter differences
// cleaned of jitter, wrap-arounds and resets.
#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

using Kel::Interpolate;
using Kel::test::DataRecord;
using Kel::test::ms;
using Kel::test::request;

namespace {

constexpr double kDropped = std::numeric_limits<double>::lowest();

class Differences : public ::testing::Test {
protected:
    void SetUp() override
    {
        engine = std::make_unique<Interpolate>(request("diffCtrUpCleaned", 60), std::vector<Interpolate::InterpolateParam>{},
                                               0, 0, 0, 0, &out, QMetaType::Double, false, resultCount, false);
    }

    // What the pre-stage makes of each reading: the difference, or kDropped.
    std::vector<double> apply(Interpolate::DiffHandler handler, const std::vector<double>& readings)
    {
        std::vector<double> results;
        long long t = 1000;
        for (const double reading : readings) {
            DataRecord r{t, QVariant(reading)};
            (engine.get()->*handler)(r, t);
            results.push_back(r.value.isValid() ? r.value.toDouble() : kDropped);
            t += 1000;
        }
        return results;
    }

    std::vector<double> plain(const std::vector<double>& readings)
    {
        return apply(&Interpolate::handle_DIFF, readings);
    }

    std::vector<double> cleaned(const std::vector<double>& readings)
    {
        return apply(&Interpolate::handle_DIFF_CTRUPCLEANED, readings);
    }

    std::vector<DataRecord> out;
    int resultCount = 0;
    std::unique_ptr<Interpolate> engine;
};

TEST_F(Differences, PlainDifferenceDropsTheFirstRecordAndFollowsEveryStep)
{
    EXPECT_EQ(plain({10, 12, 11}), (std::vector<double>{kDropped, 2, -1}));
}

TEST_F(Differences, CounterDifferencesOfARisingCounter)
{
    EXPECT_EQ(cleaned({100, 105, 105}), (std::vector<double>{kDropped, 5, 0}));
}

TEST_F(Differences, WrapAroundIsBridgedWithTheGapAsTheNewBase)
{
    // 1000000 is the first wrap value above 999990: the gap 10 and the new
    // reading 5 both lie below 2000, so the counter wrapped.
    EXPECT_EQ(cleaned({999990, 5, 15}), (std::vector<double>{kDropped, kDropped, 5}));
    EXPECT_EQ(engine->diffHistory.back().toDouble(), 15.0);
    EXPECT_EQ(engine->diffHistory[engine->diffHistory.size() - 2].toDouble(), 10.0);
}

TEST_F(Differences, DropFarBelowTheNextWrapValueIsNeitherWrapNorBase)
{
    // 500000 is far below 1000000, so a drop to 5 is no wrap: the record is
    // dropped and not remembered, and the next reading is compared with 500000.
    EXPECT_EQ(cleaned({500000, 5, 500010}), (std::vector<double>{kDropped, kDropped, 10}));
}

TEST_F(Differences, ResetToZeroRestartsTheCounterFromTheNextNonZeroReading)
{
    EXPECT_EQ(cleaned({500, 0, 0, 7, 9}), (std::vector<double>{kDropped, kDropped, kDropped, kDropped, 2}));
}

TEST_F(Differences, SmallBackwardStepIsDroppedWithoutBecomingTheBase)
{
    // The last five readings rose by 4000: steps smaller than 4000 / 5 * 0.001 = 0.8 are jitter.
    EXPECT_EQ(cleaned({1000, 2000, 3000, 4000, 5000, 4999.5, 5001}),
              (std::vector<double>{kDropped, 1000, 1000, 1000, 1000, kDropped, 1}));
}

TEST_F(Differences, BackwardStepAboveTheJitterThresholdIsDroppedToo)
{
    // Threshold 0.001 * 40 / 5 = 0.008 is below the step of 0.01: no jitter,
    // no wrap, no reset, and still the record is dropped unremembered.
    const std::vector<double> r = cleaned({1000, 1010, 1020, 1030, 1040, 1039.99, 1041});
    EXPECT_EQ(r[5], kDropped);
    EXPECT_DOUBLE_EQ(r[6], 1.0);
}

TEST_F(Differences, HistoryHoldsAtMostTenValues)
{
    std::vector<double> readings;
    for (int i = 0; i < 25; ++i)
        readings.push_back(i * 3.0);
    cleaned(readings);
    ASSERT_EQ(engine->diffHistory.size(), 10u);
    EXPECT_EQ(engine->diffHistory.front().toDouble(), 45.0);
    EXPECT_EQ(engine->diffHistory.back().toDouble(), 72.0);
}

TEST_F(Differences, NegativeIntervalValuesOfACleanedCounterAreRaisedToZero)
{
    std::vector<DataRecord> stored;
    int count = 0;
    Interpolate e(request("diffCtrUpCleaned", 3600), {}, ms("2024-05-07T10:00:00Z"), ms("2024-05-07T12:00:00Z"), 0,
                  ms("2024-12-01T00:00:00Z"), &stored, QMetaType::Double, false, count, false);
    long long rs = 0;
    long long re = 0;
    ASSERT_TRUE(e.getRange(rs, re));
    e.pushIntervalValue(ms("2024-05-07T11:00:00Z"), -5.0, false);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].value.toDouble(), 0.0);
}

TEST_F(Differences, CleanedCounterReadGivesConsumptionAcrossAWrap)
{
    // A six-digit counter that counts 10 a minute and wraps at 10:40.
    std::vector<DataRecord> meter;
    double reading = 999500;
    for (long long t = ms("2024-05-07T09:50:00Z"); t <= ms("2024-05-07T12:10:00Z"); t += 60000) {
        meter.push_back(DataRecord{t, QVariant(reading)});
        reading += 10;
        if (reading >= 1000000)
            reading -= 1000000;
    }
    Kel::test::Read read;
    read.param = request("diffCtrUpCleaned", 3600);
    read.start = ms("2024-05-07T11:00:00Z");
    read.end = ms("2024-05-07T12:00:00Z");
    const std::vector<DataRecord> result = Kel::test::runRead(read, meter);

    ASSERT_EQ(result.size(), 2u);
    // The reading at the wrap is dropped and the gap up to 1000000, not the
    // reading, becomes the base: the two minutes around the wrap count 0.
    EXPECT_DOUBLE_EQ(result[0].value.toDouble(), 580.0);
    EXPECT_DOUBLE_EQ(result[1].value.toDouble(), 600.0);
}

} // namespace
