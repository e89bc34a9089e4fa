#include "StorageFixture.h"

#include <QDir>

using namespace Kel::test;
using Kel::TSFileInfo;
using Kel::TSFileStorage;

class FileMaintenance : public StorageFixture {
protected:
    bool checkSize(const QString& rel)
    {
        const TSFileInfo info = series->findFile(ms("2024-05-07T12:00:00Z"));
        EXPECT_EQ(info.filePath(), file(rel));
        QFile f(info.filePath());
        return series->checkMaxFileSize(&f, info);
    }
};

TEST_F(FileMaintenance, FileOfExactlyTheLimitIsNotSplitOneByteMoreIs)
{
    useSeries(QMetaType::Double, 4 * 13);
    write(hourly(0, 4));  // a year file of 4 records of 13 bytes: exactly the limit
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024"))).isFile());
    EXPECT_FALSE(checkSize(QStringLiteral("2024")));

    useSeries(QMetaType::Double, 4 * 13 - 1);
    EXPECT_TRUE(checkSize(QStringLiteral("2024")));
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024"))).isDir());
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024/05"))).isFile());
    EXPECT_EQ(timestamps(read()), timestamps(hourly(0, 4)));
}

TEST_F(FileMaintenance, SideFileMayGrowToTenTimesTheLimit)
{
    useSeries(QMetaType::Double, 1000);
    write(hourly(0, 1));
    writeBytes(file(QStringLiteral("2024.var")), QByteArray(10009, 'x'));
    EXPECT_FALSE(checkSize(QStringLiteral("2024")));
    writeBytes(file(QStringLiteral("2024.var")), QByteArray(10010, 'x'));
    EXPECT_TRUE(checkSize(QStringLiteral("2024")));
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024.var"))));
}

TEST_F(FileMaintenance, MinuteFilesAreNeverSplit)
{
    useSeries(QMetaType::Double, 1);
    const long long t = ms("2024-05-07T12:00:00Z");
    for (int i = 0; i < 5; ++i)  // each write after the first splits a level deeper
        write({{t + i, double(i)}});
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024/05/07/12/00"))).isFile());
    const TSFileInfo minute = series->findFile(t);
    EXPECT_EQ(minute.getDirDepth(), TSFileInfo::DEPTH_MINUTE);
    QFile f(minute.filePath());
    EXPECT_FALSE(series->checkMaxFileSize(&f, minute));
    EXPECT_EQ(read().size(), 5u);
}

TEST_F(FileMaintenance, SplitFilesHoldEveryRecordWithItsValue)
{
    useSeries(QMetaType::QString, 40);
    const Records texts = hourly(0, 60, QMetaType::QString, 2);
    write(texts);
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024"))).isDir());
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024.var"))));
    EXPECT_TRUE(QFileInfo::exists(file(QStringLiteral("2024/05.var"))));
    EXPECT_TRUE(sameRecords(read(), texts));
    EXPECT_TRUE(QDir(file(QString())).entryList({QStringLiteral("*.split")}).isEmpty());
}

// An overwrite of a text value leaves the old value dead in the side file;
// the reorganisation that follows keeps only the values still referred to.
TEST_F(FileMaintenance, ReorganisingKeepsOnlyTheValuesStillReferredTo)
{
    useSeries(QMetaType::QString);
    const long long t = ms("2024-05-07T00:00:00Z");
    write({{t, QStringLiteral("first")}, {t + 1000, QStringLiteral("second")}});
    LogCapture log;
    write({{t, QStringLiteral("changed")}});
    EXPECT_EQ(log.count(QStringLiteral("overwritten")), 0);
    EXPECT_EQ(log.count(QStringLiteral("Reorganize .var file")), 1);

    const Records now = {{t, QStringLiteral("changed")}, {t + 1000, QStringLiteral("second")}};
    EXPECT_EQ(readBytes(file(QStringLiteral("2024.var"))), bytesOf(now, QMetaType::QString, QStringLiteral("2024.var")));
    EXPECT_EQ(readBytes(file(QStringLiteral("2024"))), bytesOf(now, QMetaType::QString));
    EXPECT_TRUE(sameRecords(read(), now));
}

TEST_F(FileMaintenance, InterruptedSideFileReplacementIsFinishedOnNextOpen)
{
    useSeries(QMetaType::QString);
    const long long t = ms("2024-05-07T00:00:00Z");
    write({{t, QStringLiteral("a")}});
    // The storage file was renamed into place, its side file not yet.
    const QByteArray var = readBytes(file(QStringLiteral("2024.var")));
    writeBytes(file(QStringLiteral("2024.new.var")), var);
    writeBytes(file(QStringLiteral("2024.var")), QByteArray("garbage"));
    EXPECT_EQ(read()[0].value.toString(), QStringLiteral("a"));
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024.new.var"))));

    // A replacement stopped before the storage file moved is thrown away by
    // the next write. A reader leaves it: it may be one under way.
    writeBytes(file(QStringLiteral("2024.new")), QByteArray("partial"));
    writeBytes(file(QStringLiteral("2024.new.var")), QByteArray("partial"));
    EXPECT_EQ(read()[0].value.toString(), QStringLiteral("a"));
    EXPECT_TRUE(QFileInfo::exists(file(QStringLiteral("2024.new"))));
    write({{t + 1000, QStringLiteral("b")}});
    EXPECT_EQ(read()[1].value.toString(), QStringLiteral("b"));
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024.new"))));
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024.new.var"))));
}
