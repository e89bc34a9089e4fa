#include "StorageFixture.h"

#include <QDir>

using namespace Kel::test;
using Kel::TSFileStorage;

// Three day files of hourly records under month and year directories.
class Deleting : public StorageFixture {
protected:
    void SetUp() override
    {
        useSeries(QMetaType::QString, 250);
        for (int day = 0; day < 3; ++day) {
            Records batch;
            for (int h = 0; h < 24; ++h)
                batch.push_back({t0 + (day * 24 + h) * 3600000LL, QStringLiteral("v%1").arg(day * 24 + h)});
            write(batch);
        }
    }
    const long long t0 = ms("2024-05-07T00:00:00Z");
    const long long hour = 3600000LL;
};

TEST_F(Deleting, WholeSeriesRemovesItsDirectoryAndEmptyParents)
{
    ASSERT_TRUE(QFileInfo(file(QStringLiteral("2024/05/07"))).isFile());
    EXPECT_TRUE(series->deleteDataRecords(0, ms("2100-01-01T00:00:00Z"), QString()));
    EXPECT_FALSE(QDir(series->baseDir).exists());
    EXPECT_FALSE(QDir(tmp.path()).exists());  // the scratch directory was left empty too
}

TEST_F(Deleting, BothEndsOfTheRangeAreDeleted)
{
    series->deleteDataRecords(t0 + 5 * hour, t0 + 7 * hour, QString());
    const Records left = read();
    EXPECT_EQ(left.size(), 72u - 3u);
    EXPECT_EQ(left[4].timestamp, t0 + 4 * hour);
    EXPECT_EQ(left[5].timestamp, t0 + 8 * hour);
    EXPECT_EQ(left[5].value.toString(), QStringLiteral("v8"));
}

TEST_F(Deleting, FullyCoveredFileGoesWithItsSideFileAndEmptyDirectory)
{
    series->deleteDataRecords(ms("2024-05-08T00:00:00Z"), ms("2024-05-08T23:59:59Z"), QString());
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024/05/08"))));
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024/05/08.var"))));
    EXPECT_EQ(read().size(), 48u);

    series->deleteDataRecords(TSFileStorage::TS_FIRST_RECORD, ms("2024-05-07T23:59:59Z"), QString());
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024/05/07"))));
    EXPECT_TRUE(QFileInfo::exists(file(QStringLiteral("2024/05/09"))));
}

TEST_F(Deleting, PartlyCoveredFileKeepsAStrictSideFile)
{
    series->deleteDataRecords(t0 + 30 * hour, TSFileStorage::TS_LAST_RECORD, QString());
    const Records left = read();
    ASSERT_EQ(left.size(), 30u);
    EXPECT_EQ(left.back().value.toString(), QStringLiteral("v29"));
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024/05/09"))));

    QTemporaryDir other;
    TSFileStorage fresh(other.path(), QMetaType::QString, 1 << 30);
    Records kept;
    for (int h = 24; h < 30; ++h)
        kept.push_back({t0 + h * hour, QStringLiteral("v%1").arg(h)});
    fresh.writeDataRecords(kept, false, false);
    EXPECT_EQ(readBytes(file(QStringLiteral("2024/05/08.var"))), readBytes(fresh.baseDir + QStringLiteral("2024.var")));
}

TEST_F(Deleting, TwoArgumentFormClearsTheCompanionsToo)
{
    write({{t0, QStringLiteral("again")}}, true, true);
    ASSERT_TRUE(QDir(tmp.path() + QStringLiteral("/VP")).exists());
    series->deleteDataRecords(0, ms("2100-01-01T00:00:00Z"));
    EXPECT_FALSE(QDir(tmp.path() + QStringLiteral("/VP")).exists());
    EXPECT_FALSE(QDir(tmp.path() + QStringLiteral("/VO")).exists());
    EXPECT_FALSE(QDir(series->baseDir).exists());
}
