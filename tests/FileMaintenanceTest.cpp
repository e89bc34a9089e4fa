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
    Records hourly(int n, double first = 0.0)
    {
        Records r;
        for (int i = 0; i < n; ++i)
            r.push_back({ms("2024-05-07T00:30:00Z") + i * 3600000LL, first + i});
        return r;
    }
};

TEST_F(FileMaintenance, FileOfExactlyTheLimitIsNotSplitOneByteMoreIs)
{
    useSeries(QMetaType::Double, 4 * 13);
    write(hourly(4));  // a year file of 4 records of 13 bytes: exactly the limit
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024"))).isFile());
    EXPECT_FALSE(checkSize(QStringLiteral("2024")));

    useSeries(QMetaType::Double, 4 * 13 - 1);
    EXPECT_TRUE(checkSize(QStringLiteral("2024")));
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024"))).isDir());
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024/05"))).isFile());
    EXPECT_EQ(timestamps(read()), timestamps(hourly(4)));
}

TEST_F(FileMaintenance, SideFileMayGrowToTenTimesTheLimit)
{
    useSeries(QMetaType::Double, 1000);
    write(hourly(1));
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
    write({{t, 1.0}});  // year → month
    write({{t + 1, 2.0}});  // month → day
    write({{t + 2, 3.0}});  // day → hour
    write({{t + 3, 4.0}});  // hour → minute
    write({{t + 4, 5.0}});
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
    Records texts;
    for (int i = 0; i < 30; ++i)
        texts.push_back({ms("2024-05-07T00:00:00Z") + i * 7200000LL, QStringLiteral("value %1").arg(i)});
    write(texts);
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024"))).isDir());
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024.var"))));
    EXPECT_TRUE(QFileInfo::exists(file(QStringLiteral("2024/05.var"))));
    const Records back = read();
    ASSERT_EQ(back.size(), texts.size());
    for (size_t i = 0; i < back.size(); ++i) {
        EXPECT_EQ(back[i].timestamp, texts[i].timestamp);
        EXPECT_EQ(back[i].value.toString(), texts[i].value.toString());
    }
    EXPECT_TRUE(QDir(file(QString())).entryList({QStringLiteral("*.split")}).isEmpty());
}

TEST_F(FileMaintenance, ReorganisingKeepsOnlyTheValuesStillReferredTo)
{
    useSeries(QMetaType::QString);
    const long long t = ms("2024-05-07T00:00:00Z");
    write({{t, QStringLiteral("first")}, {t + 1000, QStringLiteral("second")}});
    const QByteArray compact = readBytes(file(QStringLiteral("2024.var")));
    write({{t, QStringLiteral("changed")}});  // an overwrite leaves dead data, then reorganises

    QTemporaryDir other;
    TSFileStorage fresh(other.path(), QMetaType::QString, 1 << 30);
    fresh.writeDataRecords({{t, QStringLiteral("changed")}, {t + 1000, QStringLiteral("second")}}, false, false);
    EXPECT_EQ(readBytes(file(QStringLiteral("2024.var"))), readBytes(fresh.baseDir + QStringLiteral("2024.var")));
    EXPECT_EQ(readBytes(file(QStringLiteral("2024"))), readBytes(fresh.baseDir + QStringLiteral("2024")));
    EXPECT_NE(readBytes(file(QStringLiteral("2024.var"))), compact);
    EXPECT_EQ(read()[0].value.toString(), QStringLiteral("changed"));
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
