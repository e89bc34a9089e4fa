// The peer's queries answer what the benchmark compares them with.
#include "SqliteSeries.h"
#include "Workload.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cmath>

using namespace bench;

class SqlitePeer : public ::testing::Test {
protected:
    void SetUp() override { db.insertAll(work); }

    QTemporaryDir tmp;
    const Workload work{10000};  // two hours and a bit
    SqliteSeries db{tmp.path().toStdString() + "/peer.db"};
};

TEST_F(SqlitePeer, ScansAndCountsTakeTheirRangeInclusivelyInOrder)
{
    std::vector<Row2> rows;
    db.scan(work.ts(10), work.ts(19), rows);
    ASSERT_EQ(rows.size(), 10u);
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].first, work.ts(10 + long(i)));
        EXPECT_EQ(rows[i].second, work.values[10 + i]);
    }
    EXPECT_EQ(db.count(work.t0, work.lastTs()), 10000);
    EXPECT_EQ(db.count(work.ts(10) + 1, work.ts(19)), 9);
}

TEST_F(SqlitePeer, HourlyMeansAreNumberedByTheHourTheyBegin)
{
    std::vector<Row2> hours;
    db.hourlyMeans(work.t0, work.lastTs(), hours);
    ASSERT_EQ(hours.size(), 3u);
    double sum = 0.0;
    for (int i = 3600; i < 7200; ++i)
        sum += work.values[size_t(i)];
    EXPECT_EQ(hours[1].first, work.t0 / kHourMs + 1);
    EXPECT_NEAR(hours[1].second, sum / 3600.0, 1e-12);
}

TEST_F(SqlitePeer, LookupsFindTheRowAtTheRowBeforeAndTheLast)
{
    Row2 row;
    ASSERT_TRUE(db.find(work.ts(5), row));
    EXPECT_EQ(row.second, work.values[5]);
    EXPECT_FALSE(db.find(work.ts(5) + 1, row));
    ASSERT_TRUE(db.findPrev(work.ts(5) + 500, row));
    EXPECT_EQ(row.first, work.ts(5));
    EXPECT_FALSE(db.findPrev(work.t0, row));
    ASSERT_TRUE(db.last(row));
    EXPECT_EQ(row.first, work.lastTs());
}

TEST_F(SqlitePeer, InsertsInTransactionsAddEveryRow)
{
    std::vector<Row2> rows;
    for (long long i = 0; i < 250; ++i)
        rows.push_back({work.ts(i) + 1, -1.0});
    db.insert(rows, 100);
    EXPECT_EQ(db.count(work.t0, work.lastTs()), 10250);
    Row2 row;
    ASSERT_TRUE(db.find(work.ts(249) + 1, row));
    EXPECT_EQ(row.second, -1.0);
}
