#include "StorageFixture.h"
#include "StoredRecords.h"

#include <QDir>

#include <algorithm>

using namespace Kel::test;
using Kel::TSFileStorage;

// Three day files of hourly records under month and year directories.
class Deleting : public StorageFixture {
protected:
    void SetUp() override
    {
        useSeries(QMetaType::QString, 250);
        for (int day = 0; day < 3; ++day)
            write(hourly(24 * day, 24 * day + 24, QMetaType::QString));
    }
    const long long t0 = ms("2024-05-07T00:00:00Z");
    const long long hour = 3600000LL;
};

// Deleting the whole series removes its directory and the parents it
// leaves empty; the companions stay unless the two-argument form is used.
TEST_F(Deleting, WholeSeriesGoesWithItsDirectoriesAndTheTwoArgumentFormTakesTheCompanions)
{
    write({{t0, QStringLiteral("again")}}, true, true);
    ASSERT_TRUE(QDir(tmp.path() + QStringLiteral("/VP")).exists());
    EXPECT_TRUE(series->deleteDataRecords(0, ms("2100-01-01T00:00:00Z"), QString()));
    EXPECT_FALSE(QDir(series->baseDir).exists());
    EXPECT_TRUE(QDir(tmp.path() + QStringLiteral("/VP")).exists());

    series->deleteDataRecords(0, ms("2100-01-01T00:00:00Z"));
    EXPECT_FALSE(QDir(tmp.path() + QStringLiteral("/VP")).exists());
    EXPECT_FALSE(QDir(tmp.path() + QStringLiteral("/VO")).exists());
    EXPECT_FALSE(QDir(tmp.path()).exists());  // the scratch directory was left empty too
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

// Both ends of a range are deleted; a file the range covers in part keeps
// the rest of its records, and a side file of only their values.
TEST_F(Deleting, PartlyCoveredFilesKeepTheRestAndAStrictSideFile)
{
    series->deleteDataRecords(t0 + 5 * hour, t0 + 7 * hour, QString());
    series->deleteDataRecords(t0 + 30 * hour, TSFileStorage::TS_LAST_RECORD, QString());
    EXPECT_TRUE(sameRecords(read(), joined(hourly(0, 5, QMetaType::QString), hourly(8, 30, QMetaType::QString))));
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024/05/09"))));
    EXPECT_EQ(readBytes(file(QStringLiteral("2024/05/08.var"))),
              bytesOf(hourly(24, 30, QMetaType::QString), QMetaType::QString, QStringLiteral("2024.var")));
}

// A range from the first record starts at 1970, as deletes always have: the
// records before 1970 stay, the rest of the range goes.
TEST_F(Deleting, RangeFromTheFirstRecordStartsAt1970)
{
    useSeries(QMetaType::Double);
    const Records before1970 = {{ms("1969-12-31T00:00:00Z"), 1.0}, {-1, 2.0}};
    ASSERT_TRUE(write(joined(before1970, hourly(0, 5))));
    series->deleteDataRecords(TSFileStorage::TS_FIRST_RECORD, t0 + 2 * hour, QString());
    EXPECT_TRUE(sameRecords(read(), joined(before1970, hourly(3, 5))));
}

// Such a range that ends before 1970 starts after its end: nothing goes, and
// each record is still there once.
TEST_F(Deleting, RangeFromTheFirstRecordEndingBefore1970KeepsEveryRecord)
{
    for (QMetaType::Type type : {QMetaType::Double, QMetaType::QString}) {
        useSeries(type);
        const Records before1970 = {hourly(0, 1, type)[0], hourly(1, 2, type)[0]};
        ASSERT_TRUE(write({{ms("1969-12-31T00:00:00Z"), before1970[0].value}, {-100, before1970[1].value}}));
        ASSERT_TRUE(write(hourly(0, 3, type)));
        const Records stored = read();
        series->deleteDataRecords(TSFileStorage::TS_FIRST_RECORD, -500, QString());  // before -100
        EXPECT_TRUE(sameRecords(read(), stored)) << QMetaType(type).name();
    }
}

// A file that a delete visits and keeps is reorganised, whether or not any
// of its records lay in the range.
TEST_F(Deleting, EveryFileVisitedAndKeptIsReorganised)
{
    LogCapture log;
    series->deleteDataRecords(t0 + 5 * hour + 1, t0 + 5 * hour + 1000, QString());  // between two records
    EXPECT_EQ(read().size(), 72u);
    series->deleteDataRecords(t0 + 20 * hour, t0 + 30 * hour, QString());
    EXPECT_EQ(read().size(), 61u);
    ASSERT_EQ(log.count(QStringLiteral("Reorganize .var file")), 3);
    for (const char* day : {"07", "07", "08"}) {
        const auto at = std::find_if(log.entries.begin(), log.entries.end(), [&](const Kel::LogEntry& e) {
            return e.message == QStringLiteral("Reorganize .var file '%1.var'").arg(file(QStringLiteral("2024/05/") + day));
        });
        ASSERT_NE(at, log.entries.end()) << day;
        EXPECT_EQ(at->level, 7);
    }
}

// A Float series' last-record lookup answers with other bytes (see
// LookupsTest): here 2024-01-13, inside the series. A delete clamps its range
// by the last record as stored, so that a range inside the series is not
// taken for one that reaches its end, which would remove the whole series.
TEST_F(Deleting, FloatRangeIsClampedByTheLastRecordAsStored)
{
    useSeries(QMetaType::Float);
    const Records records = {{ms("2024-01-02T00:00:00Z"), 1.5f}, {ms("2024-02-01T00:00:00Z"), 1.5f}, {t0, 1.5f}};
    ASSERT_TRUE(write(records));
    Record last;
    ASSERT_TRUE(series->getLastDataRecord(last));
    ASSERT_EQ(last.timestamp, ms("2024-01-01T00:00:00Z") + 0x3FF80000LL);  // the offset of t0 ends in 00

    series->deleteDataRecords(records[0].timestamp, ms("2024-01-20T00:00:00Z"), QString());
    EXPECT_TRUE(sameRecords(storedRecords(*series), {records[1], records[2]}));
}
