// How the share of a batch for one file is planned, from the stored
// timestamps alone: no file is involved.

#include "WritePlan.h"

#include <gtest/gtest.h>

#include <vector>

using Kel::Interpolate;
using Kel::detail::WritePlan;
using Record = Interpolate::DataRecord;

namespace {

struct Planned {
    WritePlan::Kind kind;
    // Per run: its first record's index in the batch, its length, its lower
    // bound among the stored records and whether one is stored there.
    std::vector<std::vector<long long>> places;
};

Planned plan(const std::vector<long long>& stored, const std::vector<long long>& batchTimes, bool appendOnly = false)
{
    std::vector<Record> batch;
    for (long long t : batchTimes)
        batch.push_back({t, QVariant(double(t))});
    const auto timestampAt = [&stored](qint64 i) { return stored.at(size_t(i)); };
    const WritePlan p = Kel::detail::planWrite(batch.data(), batch.data() + batch.size(), qint64(stored.size()),
                                               timestampAt, appendOnly);
    Planned out{p.kind, {}};
    for (const Kel::detail::Placement& place : p.places)
        out.places.push_back({place.run - batch.data(), place.runEnd - place.run, place.index, place.stored ? 1 : 0});
    return out;
}

} // namespace

TEST(WritePlan, RecordsAfterTheLastStoredOneOrInAnEmptyFileAreAppended)
{
    for (const auto& [stored, batch, appendOnly] : {
             std::tuple{std::vector<long long>{}, std::vector<long long>{5, 5, 7}, false},
             std::tuple{std::vector<long long>{1, 2, 3}, std::vector<long long>{4, 9}, false},
             // appendOnly writes behind the stored records whatever their times
             std::tuple{std::vector<long long>{1, 2, 3}, std::vector<long long>{2, 2}, true},
         }) {
        const Planned p = plan(stored, batch, appendOnly);
        EXPECT_EQ(p.kind, WritePlan::Kind::Append);
        EXPECT_TRUE(p.places.empty());
    }
}

TEST(WritePlan, RunsThatMeetStoredRecordsOrFollowThemArePatchedInPlace)
{
    // 20 twice is one run; 40 lies after every stored record.
    const Planned p = plan({10, 20, 30}, {20, 20, 30, 40});
    EXPECT_EQ(p.kind, WritePlan::Kind::Patch);
    EXPECT_EQ(p.places, (std::vector<std::vector<long long>>{{0, 2, 1, 1}, {2, 1, 2, 1}, {3, 1, 3, 0}}));
}

TEST(WritePlan, ARunBetweenStoredRecordsRewritesTheFile)
{
    for (const auto& [batch, expected] : {
             std::pair{std::vector<long long>{15}, std::vector<std::vector<long long>>{{0, 1, 1, 0}}},
             // before the first stored record
             std::pair{std::vector<long long>{5, 30}, std::vector<std::vector<long long>>{{0, 1, 0, 0}, {1, 1, 2, 1}}},
             std::pair{std::vector<long long>{10, 25, 25, 35},
                       std::vector<std::vector<long long>>{{0, 1, 0, 1}, {1, 2, 2, 0}, {3, 1, 3, 0}}},
         }) {
        const Planned p = plan({10, 20, 30}, batch);
        EXPECT_EQ(p.kind, WritePlan::Kind::Rewrite);
        EXPECT_EQ(p.places, expected);
    }
}
