// The difference pre-stage: plain differences, and differences of an
// up-counting meter cleaned of jitter, wrap-arounds and resets.
#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <memory>

using Kel::Interpolate;
using Kel::test::DataRecord;
using Kel::test::ms;
using Kel::test::request;

namespace {

class Differences : public ::testing::Test {
protected:
    // What the pre-stage makes of each reading: the difference, or "-" when
    // the record is dropped.
    std::string apply(Interpolate::DiffHandler handler, const std::vector<double>& readings)
    {
        QStringList results;
        for (const double reading : readings) {
            DataRecord r{1000, QVariant(reading)};
            (engine.*handler)(r, r.timestamp);
            results << (r.value.isValid() ? QString::number(r.value.toDouble()) : QStringLiteral("-"));
        }
        return results.join(' ').toStdString();
    }

    std::string cleaned(const std::vector<double>& readings)
    {
        return apply(&Interpolate::handle_DIFF_CTRUPCLEANED, readings);
    }

    std::vector<DataRecord> out;
    int resultCount = 0;
    Interpolate engine{request("diffCtrUpCleaned", 60), {}, 0, 0, 0, 0, &out, QMetaType::Double, false,
                       resultCount, false};
};

TEST_F(Differences, PlainDifferenceDropsTheFirstRecordAndFollowsEveryStep)
{
    EXPECT_EQ(apply(&Interpolate::handle_DIFF, {10, 12, 11}), "- 2 -1");
}

TEST_F(Differences, CleanedDifferencesOfARisingCounter)
{
    EXPECT_EQ(cleaned({100, 105, 105}), "- 5 0");
}

TEST_F(Differences, WrapAroundIsBridgedWithTheGapAsTheNewBase)
{
    // 1000000 is the first wrap value above 999990: the gap 10 and the new
    // reading 5 both lie below 2000, so the counter wrapped.
    EXPECT_EQ(cleaned({999990, 5, 15}), "- - 5");
}

TEST_F(Differences, DropFarBelowTheNextWrapValueIsNeitherWrapNorBase)
{
    EXPECT_EQ(cleaned({500000, 5, 500010}), "- - 10");
}

TEST_F(Differences, ResetToZeroRestartsFromTheFirstNonZeroReading)
{
    EXPECT_EQ(cleaned({500, 0, 0, 7, 9}), "- - - - 2");
}

TEST_F(Differences, JitterIsDroppedWithoutBecomingTheBase)
{
    // The last five readings rose by 4000, so steps below 4000 / 5 * 0.001 = 0.8 are jitter.
    EXPECT_EQ(cleaned({1000, 2000, 3000, 4000, 5000, 4999.5, 5001}), "- 1000 1000 1000 1000 - 1");
}

TEST_F(Differences, StepBackAboveTheJitterThresholdIsDroppedToo)
{
    // A threshold of 40 / 5 * 0.001 = 0.008 is below the step of 0.01: no
    // jitter, no wrap, no reset, and the record is dropped all the same.
    EXPECT_EQ(cleaned({1000, 1010, 1020, 1030, 1040, 1039.99, 1041}), "- 10 10 10 10 - 1");
}

TEST_F(Differences, HistoryHoldsAtMostTenValues)
{
    std::vector<double> readings;
    for (int i = 0; i < 25; ++i)
        readings.push_back(i * 3.0);
    cleaned(readings);
    // The last ten readings, oldest first.
    std::vector<double> kept;
    for (const QVariant& v : engine.diffHistory)
        kept.push_back(v.toDouble());
    EXPECT_EQ(kept, (std::vector<double>{45, 48, 51, 54, 57, 60, 63, 66, 69, 72}));
}

TEST_F(Differences, CleanedCounterReadGivesConsumptionAndRaisesNegativeValuesToZero)
{
    // A six-digit counter that counts 10 a minute and wraps at 10:40.
    std::vector<DataRecord> meter;
    double reading = 999500;
    for (long long t = ms("2024-05-07T09:50:00Z"); t <= ms("2024-05-07T12:10:00Z"); t += 60000) {
        meter.push_back(DataRecord{t, QVariant(reading)});
        reading = reading + 10 >= 1000000 ? reading + 10 - 1000000 : reading + 10;
    }
    Kel::test::Read read;
    read.param = request("diffCtrUpCleaned", 3600);
    read.start = ms("2024-05-07T11:00:00Z");
    read.end = ms("2024-05-07T12:00:00Z");
    // The reading at the wrap is dropped and the gap up to 1000000, not the
    // reading, becomes the base: the two minutes around the wrap count 0.
    EXPECT_EQ(Kel::test::show(Kel::test::runRead(read, meter)), "11:00=580 12:00=600");

    engine.outputEnd = ms("2024-05-07T12:00:00Z");
    engine.pushIntervalValue(ms("2024-05-07T11:00:00Z"), -5.0, false);
    EXPECT_EQ(Kel::test::show(out), "11:00=0");
}

} // namespace
