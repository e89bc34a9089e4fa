#include "TSDirControl.h"
#include "TSFileInfo.h"
#include "TestSupport.h"

#include <Poco/DateTime.h>

#include <gtest/gtest.h>

using Kel::TSDirControl;
using Kel::TSFileInfo;
using namespace Kel::test;

TEST(TreeNaming, BaseDirectoryIsNormalised)
{
    EXPECT_EQ(TSDirControl(QStringLiteral("C:\\data\\ts")).baseDir, QStringLiteral("C:/data/ts/"));
    EXPECT_EQ(TSDirControl(QStringLiteral("/data/ts/")).baseDir, QStringLiteral("/data/ts/"));
}

TEST(TreeNaming, EntryNamesArePaddedButNeverCut)
{
    TSDirControl tree(QStringLiteral("/x"));
    const Poco::DateTime date(2024, 5, 7, 9, 3);
    // Year to minute, and for an unknown depth the year.
    const std::pair<int, const char*> names[] = {{0, "2024"}, {1, "05"}, {2, "07"}, {3, "09"}, {4, "03"}, {7, "2024"}};
    for (const auto& [depth, name] : names)
        EXPECT_EQ(tree.getFileNameForDepth(date, TSFileInfo::DirDepth(depth)), QLatin1String(name)) << depth;
    EXPECT_EQ(tree.getFileNameForDepth(Poco::DateTime(987, 1, 1), TSFileInfo::DEPTH_YEAR), QStringLiteral("0987"));
}

TEST(TreeNaming, DepthBaseAndPeriodEndFollowThePath)
{
    const struct {
        const char* path;
        const char* subDir;  // as the lookups pass it, doubled slashes and all
        TSFileInfo::DirDepth depth;
        const char* base;
        const char* periodEnd;
    } cases[] = {
        {"/b/2024", "", TSFileInfo::DEPTH_YEAR, "2024-01-01T00:00:00Z", "2025-01-01T00:00:00Z"},
        {"/b/2024/02", "2024/", TSFileInfo::DEPTH_MONTH, "2024-02-01T00:00:00Z", "2024-03-01T00:00:00Z"},
        {"/b/2023/12", "2023/", TSFileInfo::DEPTH_MONTH, "2023-12-01T00:00:00Z", "2024-01-01T00:00:00Z"},
        {"/b/2024/05/07", "2024//05/", TSFileInfo::DEPTH_DAY, "2024-05-07T00:00:00Z", "2024-05-08T00:00:00Z"},
        {"/b/2024/05/07/09", "2024/05/07/", TSFileInfo::DEPTH_HOUR, "2024-05-07T09:00:00Z", "2024-05-07T10:00:00Z"},
        {"/b/2024/05/07/09/03", "2024/05/07/09/", TSFileInfo::DEPTH_MINUTE, "2024-05-07T09:03:00Z",
         "2024-05-07T09:04:00Z"},
    };
    for (const auto& c : cases) {
        const TSFileInfo info(QFileInfo(QLatin1String(c.path)), QLatin1String(c.subDir));
        EXPECT_EQ(info.getDirDepth(), c.depth) << c.path;
        EXPECT_EQ(info.getBaseTsMs(), ms(c.base)) << c.path;
        EXPECT_EQ(info.getPeriodEndTsMs(), ms(c.periodEnd)) << c.path;
    }
}

TEST(TreeNaming, ImpossibleDateLogsAndFallsBackToZero)
{
    LogCapture log;
    const TSFileInfo info(QFileInfo(QStringLiteral("/b/2024/13/01")), QStringLiteral("2024/13/"));
    EXPECT_EQ(info.getBaseTsMs(), 0);
    ASSERT_EQ(log.entries.size(), 1u);
    EXPECT_EQ(log.entries[0].message, QStringLiteral("Exception on getBaseTsMs - DateTime"));
    EXPECT_EQ(log.entries[0].level, 2);
    EXPECT_EQ(log.entries[0].sourceFile, QStringLiteral("lib/KelTSFileStorage/src/TSFileInfo"));
}

// A default info names nothing and starts in 1970; only a file is found.
TEST(TreeNaming, DefaultInfoNamesNothingAndADirectoryIsNotFound)
{
    const TSFileInfo info;
    EXPECT_FALSE(info.found());
    EXPECT_EQ(info.getDirDepth(), TSFileInfo::DEPTH_YEAR);
    EXPECT_EQ(info.getBaseTsMs(), 0);

    QTemporaryDir tmp;
    makeDir(tmp.filePath(QStringLiteral("2024")));
    touch(tmp.filePath(QStringLiteral("2023")));
    EXPECT_FALSE(TSFileInfo(QFileInfo(tmp.filePath(QStringLiteral("2024"))), QString()).found());
    EXPECT_TRUE(TSFileInfo(QFileInfo(tmp.filePath(QStringLiteral("2023"))), QString()).found());
}
