// The workload and the scratch directory.
#include "Workload.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <set>

using namespace bench;
namespace fs = std::filesystem;

TEST(Workload, RecordsFollowTheSecondsTheSineAndTheMeter)
{
    const Workload w(200000);
    EXPECT_EQ(w.days(), 3);
    EXPECT_EQ(w.ts(0), 1704067200000LL);  // 2024-01-01T00:00:00Z
    EXPECT_EQ(w.lastTs(), w.ts(0) + 199999 * kSecondMs);
    const Records b = w.batch(3600, 2);
    ASSERT_EQ(b.size(), 2u);
    EXPECT_EQ(b[1].timestamp, w.ts(3601));
    EXPECT_EQ(b[0].value.toDouble(), 20.0 + 5.0 * std::sin(1.0));
    EXPECT_EQ(w.counterBatch(10, 1)[0].value.toDouble(), 25.0);
}

TEST(Workload, RandomIndicesAreDistinctLeaveTheLastRecordAndRepeat)
{
    const Workload w(1000);
    const std::vector<long long> a = w.randomIndices(500, 1);
    EXPECT_EQ(a, w.randomIndices(500, 1));
    EXPECT_NE(a, w.randomIndices(500, 2));
    const std::set<long long> distinct(a.begin(), a.end());
    EXPECT_EQ(distinct.size(), 500u);
    EXPECT_GE(*distinct.begin(), 0);
    // A record follows each, so that an insert after it lies between two.
    EXPECT_LT(*distinct.rbegin(), 999);
    EXPECT_EQ(w.randomIndices(5000, 1).size(), 999u);
}

TEST(Workload, DataDirIsFreshAndGoesUnlessKept)
{
    std::string removed, kept;
    {
        const DataDir dir("/tmp", false);
        removed = dir.rootPath();
        ASSERT_TRUE(fs::is_directory(removed));
        EXPECT_TRUE(fs::is_empty(removed));
        std::ofstream(dir.path("file")) << "x";
        EXPECT_NE(dir.fileSystem(), "unknown");
        const DataDir keep("/tmp", true);
        kept = keep.rootPath();
        EXPECT_NE(kept, removed);
    }
    EXPECT_FALSE(fs::exists(removed));
    EXPECT_TRUE(fs::is_directory(kept));
    removeTree(kept);
    EXPECT_FALSE(fs::exists(kept));
}
