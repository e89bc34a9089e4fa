// The difference pre-stage: plain differences, and differences of an
// up-counting meter cleaned of jitter, wrap-arounds and resets.
#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <memory>

using Kel::Interpolate;
using namespace Kel::test;

namespace {

class Differences : public ::testing::Test {
protected:
    // What the pre-stage makes of each reading: the difference, or "-" when
    // the record is dropped.
    static std::string apply(Interpolate& e, Interpolate::DiffHandler handler, const std::vector<double>& readings)
    {
        QStringList results;
        for (const double reading : readings) {
            DataRecord r{1000, QVariant(reading)};
            (e.*handler)(r, r.timestamp);
            results << (r.value.isValid() ? QString::number(r.value.toDouble()) : QStringLiteral("-"));
        }
        return results.join(' ').toStdString();
    }

    std::vector<DataRecord> out;
    int resultCount = 0;
    Interpolate engine{request("diffCtrUpCleaned", 60), {}, 0, 0, 0, 0, &out, QMetaType::Double, false,
                       resultCount, false};
};

TEST_F(Differences, EachReadingGivesItsDifferenceOrIsDropped)
{
    const struct {
        Interpolate::DiffHandler handler;
        std::vector<double> readings;
        const char* expected;
    } cases[] = {
        // A plain difference drops the first record and follows every step.
        {&Interpolate::handle_DIFF, {10, 12, 11}, "- 2 -1"},
        // The cleaned differences of a rising counter.
        {&Interpolate::handle_DIFF_CTRUPCLEANED, {100, 105, 105}, "- 5 0"},
        // 1000000 is the first wrap value above 999990: the gap 10 and the new
        // reading 5 both lie below 2000, so the counter wrapped, and the gap
        // becomes the new base.
        {&Interpolate::handle_DIFF_CTRUPCLEANED, {999990, 5, 15}, "- - 5"},
        // A drop far below the next wrap value is neither wrap nor base.
        {&Interpolate::handle_DIFF_CTRUPCLEANED, {500000, 5, 500010}, "- - 10"},
        // A reset to zero restarts from the first reading that is not zero.
        {&Interpolate::handle_DIFF_CTRUPCLEANED, {500, 0, 0, 7, 9}, "- - - - 2"},
        // The last five readings rose by 4000, so steps below 4000 / 5 * 0.001
        // = 0.8 are jitter, dropped without becoming the base.
        {&Interpolate::handle_DIFF_CTRUPCLEANED, {1000, 2000, 3000, 4000, 5000, 4999.5, 5001},
         "- 1000 1000 1000 1000 - 1"},
        // A threshold of 40 / 5 * 0.001 = 0.008 is below the step back of
        // 0.01: no jitter, no wrap, no reset, and dropped all the same.
        {&Interpolate::handle_DIFF_CTRUPCLEANED, {1000, 1010, 1020, 1030, 1040, 1039.99, 1041},
         "- 10 10 10 10 - 1"},
    };
    for (const auto& c : cases) {
        Interpolate fresh{request("diffCtrUpCleaned", 60), {}, 0, 0, 0, 0, &out, QMetaType::Double, false,
                          resultCount, false};
        EXPECT_EQ(apply(fresh, c.handler, c.readings), c.expected) << c.readings.front();
    }
}

TEST_F(Differences, HistoryHoldsAtMostTenValues)
{
    std::vector<double> readings;
    for (int i = 0; i < 25; ++i)
        readings.push_back(i * 3.0);
    apply(engine, &Interpolate::handle_DIFF_CTRUPCLEANED, readings);
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
    Read read{request("diffCtrUpCleaned", 3600), {}, ms("2024-05-07T11:00:00Z"), ms("2024-05-07T12:00:00Z")};
    // The reading at the wrap is dropped and the gap up to 1000000, not the
    // reading, becomes the base: the two minutes around the wrap count 0.
    EXPECT_EQ(show(runRead(read, meter)), "11:00=580 12:00=600");

    engine.outputEnd = ms("2024-05-07T12:00:00Z");
    engine.pushIntervalValue(ms("2024-05-07T11:00:00Z"), -5.0, false);
    EXPECT_EQ(show(out), "11:00=0");
}

} // namespace
