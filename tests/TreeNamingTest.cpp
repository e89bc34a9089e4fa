#include "TSDirControl.h"
#include "TSFileInfo.h"
#include "TestSupport.h"

#include <Poco/DateTime.h>

#include <gtest/gtest.h>

using Kel::TSDirControl;
using Kel::TSFileInfo;
using Kel::test::LogCapture;
using Kel::test::ms;

TEST(TreeNaming, BaseDirectoryIsNormalised)
{
    EXPECT_EQ(TSDirControl(QStringLiteral("C:\\data\\ts")).baseDir, QStringLiteral("C:/data/ts/"));
    EXPECT_EQ(TSDirControl(QStringLiteral("/data/ts/")).baseDir, QStringLiteral("/data/ts/"));
}

TEST(TreeNaming, EntryNamesArePaddedButNeverCut)
{
    TSDirControl tree(QStringLiteral("/x"));
    const Poco::DateTime date(2024, 5, 7, 9, 3);
    EXPECT_EQ(tree.getFileNameForDepth(date, TSFileInfo::DEPTH_YEAR), QStringLiteral("2024"));
    EXPECT_EQ(tree.getFileNameForDepth(date, TSFileInfo::DEPTH_MONTH), QStringLiteral("05"));
    EXPECT_EQ(tree.getFileNameForDepth(date, TSFileInfo::DEPTH_DAY), QStringLiteral("07"));
    EXPECT_EQ(tree.getFileNameForDepth(date, TSFileInfo::DEPTH_HOUR), QStringLiteral("09"));
    EXPECT_EQ(tree.getFileNameForDepth(date, TSFileInfo::DEPTH_MINUTE), QStringLiteral("03"));
    EXPECT_EQ(tree.getFileNameForDepth(Poco::DateTime(987, 1, 1), TSFileInfo::DEPTH_YEAR),
              QStringLiteral("0987"));
    EXPECT_EQ(tree.getFileNameForDepth(date, TSFileInfo::DirDepth(7)), QStringLiteral("2024"));
}

TEST(TreeNaming, DepthAndBaseTimestampFollowThePath)
{
    const TSFileInfo year(QFileInfo(QStringLiteral("/b/2024")), QString());
    EXPECT_EQ(year.getDirDepth(), TSFileInfo::DEPTH_YEAR);
    EXPECT_EQ(year.getBaseTsMs(), 1704067200000LL);

    const TSFileInfo minute(QFileInfo(QStringLiteral("/b/2024/05/07/09/03")), QStringLiteral("2024/05/07/09/"));
    EXPECT_EQ(minute.getDirDepth(), TSFileInfo::DEPTH_MINUTE);
    EXPECT_EQ(minute.getBaseTsMs(), ms("2024-05-07T09:03:00Z"));

    const TSFileInfo day(QFileInfo(QStringLiteral("/b/2024/05/07")), QStringLiteral("2024//05/"));
    EXPECT_EQ(day.getDirDepth(), TSFileInfo::DEPTH_DAY);
    EXPECT_EQ(day.getBaseTsMs(), ms("2024-05-07T00:00:00Z"));
}

TEST(TreeNaming, PeriodEndIsOneCalendarUnitAfterTheBase)
{
    EXPECT_EQ(TSFileInfo(QFileInfo(QStringLiteral("/b/2024")), QString()).getPeriodEndTsMs(),
              ms("2025-01-01T00:00:00Z"));
    EXPECT_EQ(TSFileInfo(QFileInfo(QStringLiteral("/b/2024/02")), QStringLiteral("2024/")).getPeriodEndTsMs(),
              ms("2024-03-01T00:00:00Z"));
    EXPECT_EQ(TSFileInfo(QFileInfo(QStringLiteral("/b/2023/12")), QStringLiteral("2023/")).getPeriodEndTsMs(),
              ms("2024-01-01T00:00:00Z"));
    EXPECT_EQ(TSFileInfo(QFileInfo(QStringLiteral("/b/2024/05/07/09")), QStringLiteral("2024/05/07/"))
                  .getPeriodEndTsMs(),
              ms("2024-05-07T10:00:00Z"));
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

TEST(TreeNaming, DefaultInfoNamesNothingAndStartsIn1970)
{
    const TSFileInfo info;
    EXPECT_FALSE(info.found());
    EXPECT_EQ(info.getDirDepth(), TSFileInfo::DEPTH_YEAR);
    EXPECT_EQ(info.getBaseTsMs(), 0);
}

TEST(TreeNaming, DirectoryIsNotFound)
{
    QTemporaryDir tmp;
    Kel::test::makeDir(tmp.filePath(QStringLiteral("2024")));
    Kel::test::touch(tmp.filePath(QStringLiteral("2023")));
    EXPECT_FALSE(TSFileInfo(QFileInfo(tmp.filePath(QStringLiteral("2024"))), QString()).found());
    EXPECT_TRUE(TSFileInfo(QFileInfo(tmp.filePath(QStringLiteral("2023"))), QString()).found());
}
