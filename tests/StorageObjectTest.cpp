#include "TSFileStorage.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <memory>

using Kel::TSFileStorage;
using namespace Kel::test;

TEST(StorageObject, SeriesLivesUnderItsMarkerDirectory)
{
    const TSFileStorage a(QStringLiteral("/data/ts/x"), QMetaType::Int, 1000000);
    EXPECT_EQ(a.baseDir, QStringLiteral("/data/ts/x/I/"));
    EXPECT_EQ(a.dir, QStringLiteral("/data/ts/x/"));
    const TSFileStorage b(QStringLiteral("/data/ts/x/"), QMetaType::Int, 1000000);
    EXPECT_EQ(b.baseDir, QStringLiteral("/data/ts/x/I/"));
    EXPECT_EQ(b.dir, QStringLiteral("/data/ts/x/"));
    EXPECT_EQ(TSFileStorage(QStringLiteral("/d"), QMetaType::QString, 1).baseDir, QStringLiteral("/d/V/"));
}

TEST(StorageObject, IntervalsAreRefusedForVariableValuesAndCompanions)
{
    LogCapture log;
    TSFileStorage text(QStringLiteral("/d"), QMetaType::QString, 1);
    long long interval = 60000;
    text.checkValidInterval(interval, QString());
    EXPECT_EQ(interval, 0);
    EXPECT_EQ(log.count(QStringLiteral("No interval support for variant")), 1);

    TSFileStorage number(QStringLiteral("/d"), QMetaType::Double, 1);
    interval = 60000;
    number.checkValidInterval(interval, QStringLiteral("P"));
    EXPECT_EQ(interval, 0);
    interval = 60000;
    number.checkValidInterval(interval, QString());
    EXPECT_EQ(interval, 60000);
    EXPECT_EQ(log.entries.size(), 1u);
}

TEST(StorageObject, CompanionStoragesAreSiblingsOfTheSeriesDirectory)
{
    QTemporaryDir tmp;
    TSFileStorage series(tmp.path(), QMetaType::Double, 4096);
    EXPECT_EQ(series.getReadFilestorageForMarker(QString()), nullptr);
    EXPECT_EQ(series.getReadFilestorageForMarker(QStringLiteral("P")), nullptr);

    makeDir(tmp.filePath(QStringLiteral("D")));
    makeDir(tmp.filePath(QStringLiteral("DP")));
    makeDir(tmp.filePath(QStringLiteral("DO")));
    EXPECT_EQ(series.getReadFilestorageForMarker(QString()), &series);
    EXPECT_EQ(series.getReadFilestorageForMarker(QStringLiteral("X")), nullptr);

    // Where P and O lie and what they hold, the companion tests of writing show.
    std::unique_ptr<TSFileStorage> p(series.getReadFilestorageForMarker(QStringLiteral("P")));
    ASSERT_TRUE(p);
    EXPECT_EQ(p->maxFileSize, 4096);
    EXPECT_TRUE(std::unique_ptr<TSFileStorage>(series.getReadFilestorageForMarker(QStringLiteral("O"))));
}
