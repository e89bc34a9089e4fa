// The harness: the summary of repeated runs, how many runs a case gets, and
// the number format of the table.
#include "Harness.h"

#include <gtest/gtest.h>

using namespace bench;

TEST(Harness, SummaryTakesTheLowerMiddleRunAndTheExtremes)
{
    const Rates odd = summarize({5.0, 1.0, 3.0});
    EXPECT_EQ(odd.median, 3.0);
    EXPECT_EQ(odd.min, 1.0);
    EXPECT_EQ(odd.max, 5.0);
    EXPECT_EQ(odd.runs, 3);
    // Of an even number of runs, a rate that was measured, not a mean of two.
    EXPECT_EQ(summarize({4.0, 1.0, 3.0, 2.0}).median, 2.0);
    EXPECT_EQ(summarize({}).runs, 0);
}

TEST(Harness, OnlyASlowFirstRunCutsTheRuns)
{
    RunPlan plan;
    plan.runs = 5;
    plan.slowRuns = 3;
    plan.slowSeconds = 2.0;
    std::vector<int> seen;
    const auto timed = [&](double first, double others) {
        seen.clear();
        return repeat(plan, 100.0, [&](int i) {
            seen.push_back(i);
            return i == 0 ? first : others;
        });
    };

    const Rates quick = timed(0.5, 0.5);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(quick.median, 200.0);

    const Rates slow = timed(4.0, 1.0);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(slow.min, 25.0);
    EXPECT_EQ(slow.max, 100.0);

    timed(1.0, 4.0);
    EXPECT_EQ(seen.size(), 5u);
}

TEST(Harness, NumbersKeepThreeDigitsAndAPrefix)
{
    EXPECT_EQ(shortNumber(0.5), "0.5");
    EXPECT_EQ(shortNumber(12.34), "12.3");
    EXPECT_EQ(shortNumber(950.0), "950");
    EXPECT_EQ(shortNumber(999.4), "999");
    EXPECT_EQ(shortNumber(999.5), "1.00k");
    EXPECT_EQ(shortNumber(27140.0), "27.1k");
    EXPECT_EQ(shortNumber(182.4e6), "182M");
    EXPECT_EQ(shortNumber(5.2e9), "5.20G");
}
