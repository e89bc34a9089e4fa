#include "StorageFixture.h"

#include <QBuffer>
#include <QDir>

#include <algorithm>
#include <unistd.h>

using namespace Kel::test;
using Kel::TSFileStorage;

class Writing : public StorageFixture {
protected:
    const long long t0 = ms("2024-05-07T09:00:00Z");
    QString year() const { return file(QStringLiteral("2024")); }
};

TEST_F(Writing, BatchInAnyOrderEndsSortedWithTheLargerDuplicateKept)
{
    LogCapture log;
    ASSERT_TRUE(write({{t0 + 2000, 2.0}, {t0, 5.0}, {t0 + 1000, 1.0}, {t0, 3.0}}));
    const Records back = read();
    ASSERT_EQ(timestamps(back), (std::vector<long long>{t0, t0 + 1000, t0 + 2000}));
    EXPECT_EQ(back[0].value.toDouble(), 5.0);
    ASSERT_EQ(log.count(QStringLiteral("overwritten")), 1);
    EXPECT_EQ(log.entries[0].message,
              QStringLiteral("Value on '%1' overwritten on time stamp 2024-05-07T09:00:00Z old:3, new:5")
                  .arg(series->baseDir));
    EXPECT_EQ(log.entries[0].level, 4);
}

TEST_F(Writing, InsertsChangeOnlyTheBytesTheyMust)
{
    const Record a{t0, 1.0}, b{t0 + 1000, 2.0}, c{t0 + 2000, 3.0}, d{t0 + 3000, 4.0};
    write({b, d});
    write({c});        // between
    write({a});        // before every record: at the start
    ASSERT_EQ(readBytes(year()), bytesOf({a, b, c, d}));
    write({{t0 + 4000, 5.0}, {t0 + 500, 1.5}});  // one after, one between, in one batch
    EXPECT_EQ(readBytes(year()), bytesOf({a, {t0 + 500, 1.5}, b, c, d, {t0 + 4000, 5.0}}));
    EXPECT_FALSE(QFileInfo::exists(year() + QStringLiteral(".new")));
}

TEST_F(Writing, FewAndManyChangesToALargeFileLandAlike)
{
    // A batch with few records for a file searches it on disk, one with many
    // reads it whole first; both must place inserts and overwrites alike.
    Records records;
    for (long long i = 0; i < 20000; ++i)
        records.push_back({t0 + i * 1000, double(i)});
    write(records);
    const auto change = [&](const Records& batch) {
        for (const Record& r : batch) {
            const auto at = std::lower_bound(records.begin(), records.end(), r,
                                             [](const Record& a, const Record& b) { return a.timestamp < b.timestamp; });
            if (at != records.end() && at->timestamp == r.timestamp)
                at->value = r.value;
            else
                records.insert(at, r);
        }
        write(batch);
        ASSERT_EQ(readBytes(year()), bytesOf(records));
    };
    change({{t0 + 500, -1.0}, {t0 + 7000, -2.0}});
    change({{t0 + 1000, -3.0}, {t0 + 19999000, -4.0}});
    change({{t0 + 1500, -5.0}, {t0 + 2000, -6.0}, {t0 + 2500, -7.0}, {t0 + 9999500, -8.0},
            {t0 + 19999500, -9.0}, {t0 + 3000, -10.0}, {t0 + 4000, -11.0}});

    // Inserts far apart: the new file is written in more pieces than one
    // system call takes.
    Records spread;
    for (long long i = 0; i < 700; ++i)
        spread.push_back({t0 + i * 20000 + 250, double(-i)});
    change(spread);
}

// Records a minute apart in `year`, each valued by its minute + offset.
Records minutes(int year, int n, double offset = 0)
{
    Records r;
    const long long start = ms((std::to_string(year) + "-03-01T00:00:00Z").c_str());
    for (int i = 0; i < n; ++i)
        r.push_back({start + i * 60000LL, double(i) + offset});
    return r;
}

// Records between those of minutes(): 30 s after every step-th minute.
Records between(int year, int n, int step)
{
    Records r;
    for (const Record& m : minutes(year, n))
        if (qRound64(m.value.toDouble()) % step == 0)
            r.push_back({m.timestamp + 30000, -m.value.toDouble()});
    return r;
}

class RewritingSeveralFiles : public Writing {
protected:
    void SetUp() override
    {
        write(joined(joined(minutes(2021, 3000), minutes(2022, 10)), minutes(2023, 100)));
    }
    QString yearFile(int year) const { return file(QString::number(year)); }
    // Inserts into each year file, the largest first: the file each rewrite
    // replaces is larger, then smaller than the next one's new contents.
    void insertIntoEveryYear()
    {
        ASSERT_TRUE(write(joined(joined(between(2021, 3000, 7), between(2022, 10, 2)), between(2023, 100, 3))));
    }
    static Records merged(const Records& a, Records b)
    {
        b.insert(b.end(), a.begin(), a.end());
        std::stable_sort(b.begin(), b.end(), [](const Record& x, const Record& y) { return x.timestamp < y.timestamp; });
        return b;
    }
    QString spare() const { return series->baseDir + QStringLiteral(".spare"); }
};

TEST_F(RewritingSeveralFiles, EachFileGetsExactlyItsRecordsAndNothingIsLeftBeside)
{
    insertIntoEveryYear();
    EXPECT_EQ(readBytes(yearFile(2021)), bytesOf(merged(minutes(2021, 3000), between(2021, 3000, 7)), QMetaType::Double, "2021"));
    EXPECT_EQ(readBytes(yearFile(2022)), bytesOf(merged(minutes(2022, 10), between(2022, 10, 2)), QMetaType::Double, "2022"));
    EXPECT_EQ(readBytes(yearFile(2023)), bytesOf(merged(minutes(2023, 100), between(2023, 100, 3)), QMetaType::Double, "2023"));
    EXPECT_EQ(QDir(series->baseDir).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              (QStringList{"2021", "2022", "2023"}));
}

TEST_F(RewritingSeveralFiles, AReaderOfAReplacedFileKeepsReadingItsOldRecords)
{
    const QByteArray old = readBytes(yearFile(2021));
    QFile held(yearFile(2021));
    ASSERT_TRUE(held.open(QIODevice::ReadOnly));
    insertIntoEveryYear();
    EXPECT_EQ(held.readAll(), old);
    EXPECT_EQ(count(), 3110 + 429 + 5 + 34);
}

TEST_F(RewritingSeveralFiles, AReplacedFileStillLinkedElsewhereIsNeverWrittenOver)
{
    // As a process stopped between keeping the replaced file and replacing
    // it leaves things: the hidden name is a second link to a stored file.
    const QByteArray stored = readBytes(yearFile(2021));
    ASSERT_EQ(::link(QFile::encodeName(yearFile(2021)).constData(), QFile::encodeName(spare()).constData()), 0);
    ASSERT_TRUE(write(joined(between(2022, 10, 2), between(2023, 100, 3))));
    EXPECT_EQ(readBytes(yearFile(2021)), stored);
    EXPECT_FALSE(QFileInfo::exists(spare()));
    EXPECT_EQ(count(), 3110 + 5 + 34);
}

TEST_F(Writing, OverwriteInsideTheFilePatchesOneRecordAndAnEqualValueNothing)
{
    write({{t0, 1.0}, {t0 + 1000, 2.0}, {t0 + 2000, 3.0}});
    LogCapture log;
    write({{t0 + 1000, 9.0}, {t0 + 2000, 3.0}, {t0 + 3000, 4.0}});
    EXPECT_EQ(readBytes(year()), bytesOf({{t0, 1.0}, {t0 + 1000, 9.0}, {t0 + 2000, 3.0}, {t0 + 3000, 4.0}}));
    ASSERT_EQ(log.entries.size(), 1u);
    EXPECT_TRUE(log.entries[0].message.endsWith(QStringLiteral("old:2, new:9")));
}

TEST_F(Writing, AppendOnlyWritesOutOfOrderOnPurpose)
{
    write({{t0 + 5000, 5.0}});
    ASSERT_TRUE(series->writeDataRecordsInt({{t0, 1.0}, {t0, 1.0}}, false, false, true));
    EXPECT_EQ(readBytes(year()), bytesOf({{t0 + 5000, 5.0}}) + bytesOf({{t0, 1.0}}) + bytesOf({{t0, 1.0}}));
}

TEST_F(Writing, FilesOfSeveralPeriodsAreEachWrittenOnce)
{
    useSeries(QMetaType::Int, 30);
    write({{ms("2024-05-07T00:00:00Z"), 1}, {ms("2024-06-07T00:00:00Z"), 2}, {ms("2024-07-07T00:00:00Z"), 3},
           {ms("2024-08-07T00:00:00Z"), 4}});
    ASSERT_TRUE(QFileInfo(year()).isDir());
    write({{ms("2024-06-08T00:00:00Z"), 20}, {ms("2024-05-08T00:00:00Z"), 10},
           {ms("2024-07-08T00:00:00Z"), 30}});
    EXPECT_EQ(QFileInfo(file(QStringLiteral("2024/05"))).size(), 16);
    EXPECT_EQ(QFileInfo(file(QStringLiteral("2024/06"))).size(), 16);
    EXPECT_EQ(QFileInfo(file(QStringLiteral("2024/07"))).size(), 16);
    EXPECT_EQ(read().size(), 7u);
}

// The bytes the single-record stream operations give these records in a
// file of the given base and depth.
QByteArray streamed(TSFileStorage& storage, const Records& records, long long base, Kel::TSFileInfo::DirDepth depth)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QDataStream stream(&buffer);
    stream.setVersion(QDataStream::Qt_5_13);
    for (const Record& r : records)
        storage.writeDataRecord(stream, r, base, depth);
    return bytes;
}

TEST_F(Writing, AppendsAndSplitsLargerThanABlockKeepTheRecordBytes)
{
    // Two days and a bit, one record a second: more than a block of 1 MiB,
    // with some values given as int to a Double series.
    Records records;
    for (long long i = 0; i < 200000; ++i)
        records.push_back({t0 + i * 1000, i % 7 == 0 ? QVariant(int(i)) : QVariant(i * 0.25)});
    write(records);
    EXPECT_EQ(readBytes(year()), streamed(*series, records, ms("2024-01-01T00:00:00Z"), Kel::TSFileInfo::DEPTH_YEAR));

    // Over a limit of 1 MiB the year file is split into a month file of
    // 2.4 MB, written out a block at a time.
    useSeries(QMetaType::Double, 1 << 20);
    write(records);
    EXPECT_EQ(readBytes(file(QStringLiteral("2024/05"))),
              streamed(*series, records, ms("2024-05-01T00:00:00Z"), Kel::TSFileInfo::DEPTH_MONTH));
}

TEST_F(Writing, FloatSeriesKeepsEightValueBytesAcrossBatches)
{
    useSeries(QMetaType::Float);
    write({{t0, 1.5f}, {t0 + 2000, 3.5f}});
    write({{t0 + 1000, 2.5f}, {t0 + 3000, 4.5f}});
    EXPECT_EQ(readBytes(year()), streamed(*series, {{t0, 1.5f}, {t0 + 1000, 2.5f}, {t0 + 2000, 3.5f}, {t0 + 3000, 4.5f}},
                                          ms("2024-01-01T00:00:00Z"), Kel::TSFileInfo::DEPTH_YEAR));
}

TEST_F(Writing, BackfilledTimestampsAreLoggedInTheCompanionP)
{
    write({{t0 + 10000, 1.0}});
    write({{t0 + 5000, 2.0}, {t0 + 20000, 3.0}, {t0 + 10000, 4.0}}, true);
    TSFileStorage p(tmp.path() + QStringLiteral("/DP/"), QMetaType::LongLong, 1 << 30);
    EXPECT_TRUE(QDir(p.baseDir).exists());

    Records out, pRecords;
    int count = 0;
    series->readDataRecords({}, {}, 0, ms("2100-01-01T00:00:00Z"), out, false, count, &pRecords);
    EXPECT_EQ(out.size(), 3u);
    ASSERT_EQ(timestamps(pRecords), (std::vector<long long>{t0 + 5000, t0 + 10000}));
    EXPECT_EQ(pRecords[1].value.toDouble(), 4.0);

    Record first, second;
    ASSERT_TRUE(p.getFirstDataRecord(first));
    ASSERT_TRUE(p.getLastDataRecord(second));
    EXPECT_EQ(first.timestamp % 1000, 0);          // the write time, to the second
    EXPECT_EQ(second.timestamp, first.timestamp + 1);
    EXPECT_EQ(second.value.toLongLong(), t0 + 10000);
}

// Each overwrite adds its entry in turn: a record overwritten twice in one
// batch (2.0 by 20.0, then 20.0 by 30.0) keeps what the second replaced.
TEST_F(Writing, ReplacedValuesAreKeptInTheCompanionO)
{
    write({{t0, 1.0}, {t0 + 1000, 2.0}});
    write({{t0, 10.0}, {t0 + 1000, 20.0}, {t0 + 1000, 30.0}}, false, true);
    Records out;
    std::unordered_map<long long, QVariant> oMap;
    int count = 0;
    series->readDataRecords({}, {}, 0, ms("2100-01-01T00:00:00Z"), out, false, count, nullptr, &oMap);
    ASSERT_EQ(oMap.size(), 1u);
    const QVariantMap replaced = oMap.begin()->second.toMap();
    EXPECT_EQ(replaced.value(QString::number(t0)).toDouble(), 1.0);
    EXPECT_EQ(replaced.value(QString::number(t0 + 1000)).toDouble(), 20.0);
    EXPECT_EQ(read()[1].value.toDouble(), 30.0);
}

namespace {
struct Opaque {
    int x = 0;
};
} // namespace
Q_DECLARE_METATYPE(Opaque)

// A value Qt cannot serialise goes to the side file as the stream writes it,
// with no line of the storage's own; it reads back as no value, and the
// values after it in the batch are stored as usual.
TEST_F(Writing, ValueThatQtCannotSerialiseIsWrittenAsTheStreamWritesIt)
{
    useSeries(QMetaType::QString);
    LogCapture log;
    ASSERT_TRUE(write({{t0, QStringLiteral("a")}, {t0 + 1000, QVariant::fromValue(Opaque{7})},
                       {t0 + 2000, QStringLiteral("c")}}));
    EXPECT_EQ(log.entries.size(), 0u);
    const Records back = read();
    ASSERT_EQ(timestamps(back), (std::vector<long long>{t0, t0 + 1000, t0 + 2000}));
    EXPECT_EQ(back[0].value, QVariant(QStringLiteral("a")));
    EXPECT_FALSE(back[1].value.isValid());
    EXPECT_EQ(back[2].value, QVariant(QStringLiteral("c")));
}
