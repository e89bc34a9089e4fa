#include "TSFileStorage.h"
#include "TestSupport.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <memory>

using Kel::TSFileStorage;
using Kel::test::LogCapture;

TEST(StorageObject, SeriesLivesUnderItsMarkerDirectory)
{
    const TSFileStorage a(QStringLiteral("/data/ts/x"), QMetaType::Int, 1000000);
    EXPECT_EQ(a.baseDir, QStringLiteral("/data/ts/x/I/"));
    EXPECT_EQ(a.dir, QStringLiteral("/data/ts/x/"));
    const TSFileStorage b(QStringLiteral("/data/ts/x/"), QMetaType::Int, 1000000);
    EXPECT_EQ(b.baseDir, QStringLiteral("/data/ts/x/I/"));
    EXPECT_EQ(b.dir, QStringLiteral("/data/ts/x/"));
    EXPECT_EQ(b.dataLength, 4);
    EXPECT_EQ(b.maxFileSize, 1000000);
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

    Kel::test::makeDir(tmp.filePath(QStringLiteral("D")));
    Kel::test::makeDir(tmp.filePath(QStringLiteral("DP")));
    Kel::test::makeDir(tmp.filePath(QStringLiteral("DO")));
    EXPECT_EQ(series.getReadFilestorageForMarker(QString()), &series);
    EXPECT_EQ(series.getReadFilestorageForMarker(QStringLiteral("X")), nullptr);

    std::unique_ptr<TSFileStorage> p(series.getReadFilestorageForMarker(QStringLiteral("P")));
    ASSERT_TRUE(p);
    EXPECT_EQ(p->baseDir, tmp.path() + QStringLiteral("/DP/L/"));
    EXPECT_EQ(p->valueType, QMetaType::LongLong);
    EXPECT_EQ(p->maxFileSize, 4096);
    std::unique_ptr<TSFileStorage> o(series.getReadFilestorageForMarker(QStringLiteral("O")));
    ASSERT_TRUE(o);
    EXPECT_EQ(o->baseDir, tmp.path() + QStringLiteral("/DO/V/"));
    EXPECT_EQ(o->valueType, QMetaType::QVariant);
}

TEST(StorageObject, CheckDirectoryCreatesTheWholeChain)
{
    QTemporaryDir tmp;
    TSFileStorage s(tmp.path(), QMetaType::Double, 1);
    s.checkDirectory(QDir(tmp.filePath(QStringLiteral("a/b/c"))));
    EXPECT_TRUE(QDir(tmp.filePath(QStringLiteral("a/b/c"))).exists());
}

// The slow path: six attempts one second apart.
TEST(StorageObject, OpenFileRetriesSixTimesAndLogsEachAttempt)
{
    QTemporaryDir tmp;
    Kel::test::makeDir(tmp.filePath(QStringLiteral("blocked")));
    TSFileStorage s(tmp.path(), QMetaType::Double, 1);
    QFile file(tmp.filePath(QStringLiteral("blocked")));
    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    EXPECT_FALSE(s.openFile(file, QIODevice::ReadWrite));
    EXPECT_GE(timer.elapsed(), 4900);
    ASSERT_EQ(log.entries.size(), 6u);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(log.entries[i].message,
                  QStringLiteral("File open failed (Read,Write,) on '%1', attempt %2").arg(file.fileName()).arg(i + 1));
        EXPECT_EQ(log.entries[i].level, 4);
        EXPECT_EQ(log.entries[i].line, 140);
        EXPECT_EQ(log.entries[i].sourceFile, QStringLiteral("lib/KelTSFileStorage/src/TSFileStorage"));
    }
}
