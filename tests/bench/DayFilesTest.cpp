// The limit writes the very bytes of the library's day files, and reads back
// every record.
#include "DayFiles.h"

#include "TSFileStorage.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <filesystem>

using namespace bench;

namespace {

QByteArray bytesOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

TEST(DayFiles, LimitWritesTheLibrarysDayFilesAndReadsThemBack)
{
    const Workload w(100000);  // a day and a bit
    QTemporaryDir tmp;
    const std::string limit = tmp.path().toStdString() + "/limit";
    std::filesystem::create_directories(limit);
    writeDayFiles(w, limit);

    // Written a day at a time under a limit just above a day's bytes, the
    // library's tree splits down to day files.
    Kel::TSFileStorage series(tmp.path() + QStringLiteral("/series"), QMetaType::Double, 1100000);
    ASSERT_TRUE(series.writeDataRecords(w.batch(0, kRecordsPerDay), false, false));
    ASSERT_TRUE(series.writeDataRecords(w.batch(kRecordsPerDay, w.records - kRecordsPerDay), false, false));
    const QByteArray first = bytesOf(series.baseDir + QStringLiteral("2024/01/01"));
    ASSERT_EQ(first.size(), kRecordsPerDay * kDayRecordBytes);
    EXPECT_EQ(first, bytesOf(QString::fromStdString(dayFilePath(limit, 0))));
    EXPECT_EQ(bytesOf(series.baseDir + QStringLiteral("2024/01/02")),
              bytesOf(QString::fromStdString(dayFilePath(limit, 1))));

    const DayFilesRead read = readDayFiles(limit, w.days());
    EXPECT_EQ(read.records, w.records);
    double sum = 0.0;
    for (double v : w.values)
        sum += v;
    EXPECT_NEAR(read.sum, sum, 1e-9 * sum);
}
