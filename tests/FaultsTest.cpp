// Faults from outside the library: files cut short or corrupt, side files
// that are damaged or cannot be opened, timestamps the tree cannot name, a
// full disk, and a reader beside a writer in another process. For each: no
// crash, a log line that says what happened, and every record that was
// stored before the fault still readable.

#include "StorageFixture.h"

#include <QElapsedTimer>
#include <QtEndian>

#include <cerrno>
#include <cstring>
#include <limits>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Kel::test;
using Kel::TSFileInfo;
using Kel::TSFileStorage;

namespace {

const long long t0 = ms("2024-05-07T00:00:00Z");
const long long hour = 3600000LL;

class Faults : public StorageFixture {
protected:
    QString yearFile() const { return file(QStringLiteral("2024")); }
};

} // namespace

// Float records take 8 value bytes on disk while the series' record length
// counts 4: a cut must be found, and repaired, by the bytes really there.
TEST_F(Faults, FileCutInsideARecordLosesOnlyThatRecordAndIsRepairedByTheNextWrite)
{
    for (QMetaType::Type type : {QMetaType::Double, QMetaType::Float, QMetaType::QString}) {
        SCOPED_TRACE(QMetaType(type).name());
        useSeries(type);
        const int stride = series->getStoredRecordLength(TSFileInfo::DEPTH_YEAR);
        ASSERT_TRUE(write(hourly(0, 10, type)));
        ASSERT_TRUE(QFile(yearFile()).resize(7 * stride + stride / 2));

        // Float lookups step by the declared length, and the last record
        // that bounds a read is made of other bytes (see LookupsTest): for
        // Float the cut is shown by its repair alone.
        const bool positionsExact = type != QMetaType::Float;
        if (positionsExact) {
            EXPECT_TRUE(sameRecords(read(), hourly(0, 7, type)));
            EXPECT_EQ(count(), 7);
            Record last;
            ASSERT_TRUE(series->getLastDataRecord(last));
            EXPECT_EQ(last.timestamp, t0 + 6 * hour);
        }

        LogCapture log;
        ASSERT_TRUE(write(hourly(20, 22, type)));
        EXPECT_TRUE(log.contains(QStringLiteral("Dropped %1 bytes of a partial record at the end of '%2'")
                                     .arg(stride / 2)
                                     .arg(yearFile())));
        EXPECT_EQ(QFileInfo(yearFile()).size(), 9 * stride);
        if (positionsExact) {
            EXPECT_TRUE(sameRecords(read(), joined(hourly(0, 7, type), hourly(20, 22, type))));
        }
        QDir(tmp.path()).removeRecursively();
    }
}

TEST_F(Faults, FileShorterThanOneRecordReadsAsEmpty)
{
    writeBytes(yearFile(), QByteArray("\x01\x02\x03", 3));
    EXPECT_TRUE(read().empty());
    EXPECT_EQ(count(), 0);
    // A file without a whole record reads as an empty file does.
    Record rec;
    ASSERT_TRUE(series->getFirstDataRecord(rec));
    EXPECT_EQ(rec.timestamp, ms("2024-01-01T00:00:00Z"));
    EXPECT_EQ(rec.value, QVariant(0.0));
    EXPECT_FALSE(series->findDataRecord(t0, rec));
    LogCapture log;
    ASSERT_TRUE(write(hourly(0, 2)));
    EXPECT_TRUE(log.contains(QStringLiteral("Dropped 3 bytes")));
    EXPECT_TRUE(sameRecords(read(), hourly(0, 2)));
}

// A position past the end of the side file and a corrupt serialised value
// cost their own records' values, logged; timestamps and every other value
// stay readable. A side file that is missing or is a directory will not turn
// up by waiting: the read fails at once rather than after the retries of a
// held file, and keeps the timestamps.
TEST_F(Faults, SideFileDamageCostsOnlyTheValuesItHolds)
{
    useSeries(QMetaType::QString);
    ASSERT_TRUE(write(hourly(0, 6, QMetaType::QString)));
    const int stride = series->getStoredRecordLength(TSFileInfo::DEPTH_YEAR);
    const QString side = yearFile() + QStringLiteral(".var");
    QByteArray records = readBytes(yearFile());
    QByteArray values = readBytes(side);
    // Record 2 points far past the end; the string of record 4 gets an odd
    // byte length, which no UTF-16 string has.
    std::memcpy(records.data() + 2 * stride + 5, "\x00\x10\x00\x00", 4);
    const int at = int(qFromBigEndian<quint32>(records.constData() + 4 * stride + 5));
    std::memcpy(values.data() + at + 5, "\x00\x00\x00\x03", 4);
    writeBytes(yearFile(), records);
    writeBytes(side, values);

    LogCapture log;
    const Records back = read();
    ASSERT_EQ(timestamps(back), timestamps(hourly(0, 6)));
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(back[i].value, i == 2 || i == 4 ? QVariant() : QVariant(QStringLiteral("v%1").arg(i))) << i;
    EXPECT_EQ(log.count(QStringLiteral("of '%1'").arg(side)), 1) << "logged once per read";
    EXPECT_TRUE(log.contains(QStringLiteral("Value at position 1048576 of '%1' lies past the end of the file").arg(side)));
    log.entries.clear();
    Record rec;
    ASSERT_TRUE(series->findDataRecord(t0 + 4 * hour, rec));
    EXPECT_FALSE(rec.value.isValid());
    EXPECT_TRUE(log.contains(QStringLiteral("Value at position %1 of '%2' is corrupt").arg(at).arg(side)));

    // The next write of the file goes on as before.
    ASSERT_TRUE(write(hourly(6, 7, QMetaType::QString)));
    EXPECT_EQ(read().back().value, QVariant(QStringLiteral("v6")));

    for (bool directory : {false, true}) {
        QFile::remove(side);
        if (directory)
            makeDir(side);
        LogCapture failed;
        QElapsedTimer timer;
        timer.start();
        const Records left = read();
        EXPECT_LT(timer.elapsed(), 4000);
        EXPECT_EQ(timestamps(left), timestamps(hourly(0, 7)));
        for (const Record& r : left)
            EXPECT_FALSE(r.value.isValid());
        EXPECT_TRUE(failed.contains(QStringLiteral("Could not open '%1' for read (readCurrDataRecord)").arg(side)));
    }
}

// A side file that cannot be opened for append costs the values, not the
// records: each is stored with position 0 and the failure is logged. Shown
// with a directory in the side file's place, and in a child process out of
// file descriptors once the storage file is open.
TEST_F(Faults, SideFileThatCannotBeOpenedForWriteStoresTheRecordsWithPositionZero)
{
    const Records records = hourly(0, 2, QMetaType::QString);
    const auto positions = [this] {
        const QByteArray bytes = readBytes(yearFile());
        const int stride = series->getStoredRecordLength(TSFileInfo::DEPTH_YEAR);
        std::vector<quint32> at;
        for (int i = 0; i + stride <= bytes.size(); i += stride)
            at.push_back(qFromBigEndian<quint32>(bytes.constData() + i + 5));
        return at;
    };

    useSeries(QMetaType::QString);
    makeDir(yearFile() + QStringLiteral(".var"));
    LogCapture log;
    EXPECT_TRUE(write(records));
    EXPECT_TRUE(log.contains(QStringLiteral("Could not open '%1.var' for write (writeDataRecord)").arg(yearFile())));
    EXPECT_EQ(log.entries.back().level, 2);
    EXPECT_EQ(positions(), (std::vector<quint32>{0, 0}));
    EXPECT_EQ(timestamps(read()), timestamps(records));

    QDir(tmp.path()).removeRecursively();
    useSeries(QMetaType::QString);
    const pid_t child = ::fork();
    if (child == 0) {
        // Room for the storage file's descriptor and no more.
        const int next = ::dup(0);
        ::close(next);
        const rlimit limit{rlim_t(next + 1), rlim_t(next + 1)};
        ::setrlimit(RLIMIT_NOFILE, &limit);
        LogCapture childLog;
        const bool written = write(records);
        ::_exit(written && childLog.contains(QStringLiteral("Could not open '%1.var' for write").arg(yearFile())) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "the child crashed";
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(positions(), (std::vector<quint32>{0, 0}));
    EXPECT_EQ(timestamps(read()), timestamps(records));
}

// A storage file that cannot be opened (a directory stands where the tree
// places the file) fails the write after six attempts one second apart, each
// logged; the records already stored are untouched. The one test that waits
// on the retries.
TEST_F(Faults, StorageFileThatCannotBeOpenedFailsTheWriteAfterSixAttemptsAndKeepsTheStoredRecords)
{
    const long long later = ms("2026-03-01T00:00:00Z");
    ASSERT_TRUE(write(hourly(0, 5)));
    ASSERT_TRUE(write({{later, 7.0}}));
    // A minute entry that is a directory sends the tree back to the year
    // entry, which is a directory too.
    makeDir(file(QStringLiteral("2025/01/01/00/00")));
    const QString blocked = file(QStringLiteral("2025"));
    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    EXPECT_FALSE(write({{ms("2025-01-01T00:00:30Z"), 1.0}}));
    EXPECT_GE(timer.elapsed(), 4900);
    ASSERT_EQ(log.count(QStringLiteral("File open failed")), 6);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(log.entries[i].message,
                  QStringLiteral("File open failed (Read,Write,) on '%1', attempt %2").arg(blocked).arg(i + 1));
        EXPECT_EQ(log.entries[i].level, 4);
        EXPECT_EQ(log.entries[i].line, 140);
        EXPECT_EQ(log.entries[i].sourceFile, QStringLiteral("lib/KelTSFileStorage/src/TSFileStorage"));
    }
    EXPECT_TRUE(log.contains(QStringLiteral("Could not open '%1' for write (writeDataRecords)").arg(blocked)));
    // Walks end at the empty directories, so each side is read on its own.
    EXPECT_TRUE(sameRecords(read(t0, t0 + 10 * hour), hourly(0, 5)));
    Record rec;
    ASSERT_TRUE(series->findDataRecord(later, rec));
    EXPECT_EQ(rec.value.toDouble(), 7.0);
}

// Instants before 1970 are stored like any other; the tree names years 0 to
// 9999 only, so records outside are refused, logged, and the rest written.
TEST_F(Faults, TimestampsBefore1970AreStoredAndOutsideTheYears0To9999Refused)
{
    const long long year0 = -62167219200000LL;  // 0000-01-01T00:00:00Z
    const long long year10000 = ms("9999-12-31T23:59:59Z") + 1000;
    const Records placeable = {{year0, 1.0}, {ms("1900-01-01T00:00:00Z"), 2.0}, {-1000, 3.0},
                               {0, 4.0}, {year10000 - 1, 5.0}};
    Records batch = placeable;
    batch.push_back({year0 - 1, 6.0});
    batch.push_back({year10000, 7.0});
    batch.push_back({std::numeric_limits<long long>::min(), 8.0});
    LogCapture log;
    EXPECT_FALSE(write(batch));
    EXPECT_EQ(log.count(QStringLiteral("lies outside the years 0 to 9999")), 3);
    EXPECT_TRUE(log.contains(QStringLiteral("Time stamp %1 lies outside").arg(year10000)));

    EXPECT_TRUE(sameRecords(read(), placeable));
    EXPECT_EQ(count(), 5);
    Record rec;
    ASSERT_TRUE(series->findDataRecord(-1000, rec));
    EXPECT_EQ(rec.value.toDouble(), 3.0);
    ASSERT_TRUE(series->findPrevDataRecord(0, rec));
    EXPECT_EQ(rec.timestamp, -1000);
    ASSERT_TRUE(series->getFirstDataRecord(rec));
    EXPECT_EQ(rec.timestamp, year0);
    ASSERT_TRUE(series->getLastDataRecord(rec));
    EXPECT_EQ(rec.timestamp, year10000 - 1);
    series->deleteDataRecords(ms("1800-01-01T00:00:00Z"), -500);
    EXPECT_TRUE(sameRecords(read(), {placeable[0], placeable[3], placeable[4]}));
}

// Lookups end at a directory without a file of the tree. A delete that
// takes every file of a directory takes the directory too, even when a file
// that no lookup sees (here a side file left without its file) stands in it.
TEST_F(Faults, DeleteThatEmptiesADirectoryTakesItsStrayFilesAlong)
{
    useSeries(QMetaType::Double, 30);
    for (int day = 0; day < 3; ++day)
        write(hourly(24 * day, 24 * day + 24));
    write({{t0 + 24 * hour + 60000, 1.0}});  // splits the day into hour files
    ASSERT_TRUE(QFileInfo(file(QStringLiteral("2024/05/08"))).isDir());
    touch(file(QStringLiteral("2024/05/08/05.var")));
    series->deleteDataRecords(t0 + 24 * hour, t0 + 48 * hour - 1);
    EXPECT_FALSE(QFileInfo::exists(file(QStringLiteral("2024/05/08"))));
    EXPECT_TRUE(sameRecords(read(), joined(hourly(0, 24), hourly(48, 72))));
}

// A tmpfs of 64 KiB mounted over a scratch directory; root only.
class FullDisk : public Faults {
protected:
    void SetUp() override
    {
        if (::mount("tmpfs", QFile::encodeName(tmp.path()).constData(), "tmpfs", 0, "size=64k") != 0)
            GTEST_SKIP() << "cannot mount a small tmpfs here (" << std::strerror(errno)
                         << "); the full-disk test needs root";
        mounted = true;
        useSeries(QMetaType::Double);
    }
    void TearDown() override
    {
        if (mounted)
            ::umount2(QFile::encodeName(tmp.path()).constData(), MNT_DETACH);
    }
    bool mounted = false;
};

TEST_F(FullDisk, FailedAppendAndInsertKeepEveryStoredRecord)
{
    ASSERT_TRUE(write(hourly(0, 50)));
    QFile fill(tmp.filePath(QStringLiteral("filler")));  // until the disk is full
    fill.open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    while (fill.write(QByteArray(512, 'x')) == 512) {
    }

    LogCapture log;
    EXPECT_FALSE(write(hourly(100, 1100)));
    EXPECT_TRUE(log.contains(QStringLiteral("Could not write '%1' (writeDataRecords)").arg(yearFile())));
    // What reached the disk before it filled is a run of whole records
    // after the stored ones (and perhaps part of one, never read).
    const Records afterAppend = read();
    ASSERT_GE(afterAppend.size(), 50u);
    EXPECT_TRUE(sameRecords(Records(afterAppend.begin(), afterAppend.begin() + 50), hourly(0, 50)));
    EXPECT_TRUE(sameRecords(Records(afterAppend.begin() + 50, afterAppend.end()),
                            hourly(100, 100 + int(afterAppend.size()) - 50)));

    // An insert writes the whole file anew beside it: no room, no change.
    log.entries.clear();
    EXPECT_FALSE(write({{t0 + hour / 2, 9.0}}));
    EXPECT_TRUE(log.contains(QStringLiteral("Could not write '%1' (writeDataRecords)").arg(yearFile())));
    EXPECT_TRUE(sameRecords(read(), afterAppend));
    EXPECT_FALSE(QFileInfo::exists(yearFile() + QStringLiteral(".new")));

    // With room again, the next write repairs the file and goes on.
    fill.remove();
    ASSERT_TRUE(write({{t0 + hour / 2, 9.0}}));
    const Records repaired = read();
    EXPECT_EQ(repaired.size(), afterAppend.size() + 1);
    EXPECT_EQ(QFileInfo(yearFile()).size(), qint64(repaired.size()) * 13);
}

// Another process appends batches while this one reads: every read sees
// whole records in order, a prefix of what is being written, never fewer
// than the read before.
TEST_F(Faults, ReaderBesideAnAppendingProcessSeesAGrowingPrefix)
{
    for (int maxFileSize : {1 << 30, 4000, 1000}) {
        SCOPED_TRACE(maxFileSize);
        QTemporaryDir dir;
        TSFileStorage reader(dir.path(), QMetaType::Double, maxFileSize);
        constexpr int kBatches = 1000;
        constexpr int kPerBatch = 10;
        const auto record = [](int i) { return Record{t0 + i * 60000LL, double(i) * 1.5}; };
        const pid_t child = ::fork();
        if (child == 0) {
            Kel::Logger::instance().setSink([](const Kel::LogEntry&) {});
            TSFileStorage writer(dir.path(), QMetaType::Double, maxFileSize);
            for (int b = 0; b < kBatches; ++b) {
                Records batch;
                for (int i = b * kPerBatch; i < (b + 1) * kPerBatch; ++i)
                    batch.push_back(record(i));
                if (!writer.writeDataRecords(batch, false, false))
                    ::_exit(1);
            }
            ::_exit(0);
        }
        LogCapture log;
        size_t seen = 0;
        int reads = 0;
        int status = 0;
        for (bool done = false; !done; ++reads) {
            done = ::waitpid(child, &status, WNOHANG) == child;
            const Records back = readAll(reader);
            ASSERT_GE(back.size(), seen) << "read " << reads;
            for (size_t i = 0; i < back.size(); ++i) {
                ASSERT_EQ(back[i].timestamp, record(int(i)).timestamp) << "read " << reads << ", record " << i;
                ASSERT_EQ(back[i].value.toDouble(), record(int(i)).value.toDouble());
            }
            seen = back.size();
        }
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        EXPECT_EQ(seen, size_t(kBatches * kPerBatch));
        EXPECT_GT(reads, 2);
        EXPECT_EQ(log.count(QStringLiteral("File open failed")), 0);
    }
}
