// Readers in threads beside a writer thread of the same process, each with a
// storage object of its own on one series. The library takes no lock, so the
// objects must share nothing but the files; under ThreadSanitizer (`make
// test-tsan`) this test shows that they share no memory either. What the
// readers see is what readers in other processes are promised: each file
// before or after each change of it, and a file that the writer splits
// between their lookup and their open looked up again.

#include "StorageFixture.h"

#include <QDirIterator>
#include <QElapsedTimer>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <random>
#include <set>
#include <string>
#include <thread>

using namespace Kel::test;
using Kel::TSFileStorage;

namespace {

const long long t0 = ms("2024-05-07T00:00:00Z");
const long long hour = 3600000LL;
// A record every ten minutes, 144 a day. A day file outgrows the limit after
// 50 records and is split into hour files while the readers read it; the
// year and month files before it go the same way in the first steps.
const long long kGrid = 600000LL;
constexpr int kMaxFileSize = 600;
constexpr int kSteps = 300;
constexpr int kAppendsPerStep = 12;
constexpr int kInsertsPerStep = 3;
constexpr int kReaders = 3;
constexpr int kLookupsPerRound = 4;
constexpr size_t kFailuresKept = 10;

// Every value is a function of its timestamp, so that each record read can
// be checked on its own: one whose value is not that of its time is torn.
double valueAt(long long ts)
{
    return double(ts) / 1000.0 + 0.25;
}

bool isWhole(const Record& r)
{
    return r.value.typeId() == QMetaType::Double && r.value.toDouble() == valueAt(r.timestamp);
}

// The writer's calls, fixed before it starts, so that a reader can tell from
// the number of calls done which records must be stored and which may be.
struct WritePlan {
    WritePlan();

    std::vector<Records> calls;
    std::vector<std::pair<long long, int>> written;  // (timestamp, call that writes it), by time
    std::vector<long long> countBefore;              // records written by calls [0, c)
    std::vector<long long> lastBefore;               // the latest of them
};

// Each step appends two hours after the end and, from the second step on,
// inserts three records halfway between stored ones (each into a file that
// is rewritten and renamed over the old one), picked at random across the
// whole series, as a late import would.
WritePlan::WritePlan()
{
    std::mt19937 random(20240507);
    std::set<long long> inserted;
    for (int step = 0; step < kSteps; ++step) {
        if (step > 0) {
            const int stored = step * kAppendsPerStep;
            std::uniform_int_distribution<int> between(0, stored - 2);
            Records inserts;
            while (inserts.size() < size_t(kInsertsPerStep)) {
                const long long ts = t0 + between(random) * kGrid + kGrid / 2;
                if (inserted.insert(ts).second)
                    inserts.push_back({ts, valueAt(ts)});
            }
            calls.push_back(std::move(inserts));
        }
        Records appends;
        for (int i = step * kAppendsPerStep; i < (step + 1) * kAppendsPerStep; ++i)
            appends.push_back({t0 + i * kGrid, valueAt(t0 + i * kGrid)});
        calls.push_back(std::move(appends));
    }
    countBefore.push_back(0);
    lastBefore.push_back(0);
    for (size_t c = 0; c < calls.size(); ++c) {
        for (const Record& r : calls[c])
            written.push_back({r.timestamp, int(c)});
        countBefore.push_back(countBefore.back() + (long long)calls[c].size());
        long long last = lastBefore.back();
        for (const Record& r : calls[c])
            last = std::max(last, r.timestamp);
        lastBefore.push_back(last);
    }
    std::sort(written.begin(), written.end());
}

// What the writer thread shares with the readers: how many of its calls are
// done (calls [0, done) are, call done may be under way, the later ones have
// not begun), and whether it still writes.
struct WriterState {
    std::atomic<int> done{0};
    std::atomic<bool> writing{true};
};

struct ReaderFigures {
    int rounds = 0;
    int roundsWhileWriting = 0;
    long long recordsRead = 0;  // raw, each checked for order, value and presence
    long long condensedValues = 0;
    long long lookups = 0;
    long long counts = 0;
    long long emptyLastFiles = 0;  // last lookups that met a file just created
    std::vector<std::string> failures;
};

// One reader thread: rounds of a raw read of the whole series, a condensed
// read, point lookups and a count, each checked against the calls that were
// done before it began and those that may have begun before it ended.
class Reader {
public:
    Reader(const QString& dir, const WritePlan& plan, const WriterState& writer, int seed)
        : series(dir, QMetaType::Double, kMaxFileSize), plan(plan), writer(writer), random(seed)
    {
    }

    ReaderFigures run()
    {
        while (writer.writing.load(std::memory_order_acquire)) {
            round();
            ++figures.roundsWhileWriting;
        }
        // Once more with the writer done: everything, exactly.
        round();
        return figures;
    }

private:
    // The calls [0, before) done when an operation began; records may come
    // from calls [0, upTo) when it ended.
    struct Window {
        int before;
        int upTo;
    };

    template <typename Operation>
    Window during(Operation operation)
    {
        const int before = writer.done.load(std::memory_order_acquire);
        operation();
        return {before, writer.done.load(std::memory_order_acquire) + 1};
    }

    void round()
    {
        ++figures.rounds;
        Records raw;
        const Window rawWindow = during([&] { raw = readAll(series); });
        checkRaw(raw, rawWindow);
        checkCondensed();
        checkFirstAndLast();
        checkFinds(raw);
        checkCount();
    }

    void fail(const std::string& what)
    {
        if (figures.failures.size() < kFailuresKept)
            figures.failures.push_back("round " + std::to_string(figures.rounds) + ": " + what);
    }

    static std::string show(const Record& r)
    {
        return std::to_string(r.timestamp) + " = " + r.value.toString().toStdString();
    }

    // Whole records in strictly ascending order; every record of the calls
    // done before the read, and none that no call had begun to write.
    void checkRaw(const Records& got, Window w)
    {
        figures.recordsRead += (long long)got.size();
        for (size_t i = 0; i < got.size(); ++i) {
            if (!isWhole(got[i]))
                return fail("raw read: torn record " + show(got[i]));
            if (i > 0 && got[i].timestamp <= got[i - 1].timestamp)
                return fail("raw read: " + show(got[i]) + " after " + show(got[i - 1]));
        }
        size_t g = 0;
        std::vector<long long> missed;  // stored before the read, not read
        for (const auto& [ts, call] : plan.written) {
            if (g < got.size() && got[g].timestamp < ts)
                return fail("raw read: a record nobody wrote " + show(got[g]));
            if (g < got.size() && got[g].timestamp == ts) {
                if (call >= w.upTo)
                    return fail("raw read: " + show(got[g]) + " before call " + std::to_string(call) + " began");
                ++g;
            } else if (call < w.before) {
                missed.push_back(ts);
            }
        }
        if (g < got.size())
            return fail("raw read: a record nobody wrote " + show(got[g]));
        if (!missed.empty())
            fail("raw read: " + std::to_string(got.size()) + " records, missed " + std::to_string(missed.size()) +
                 " stored before it (" + std::to_string(w.before) + " calls done), from " +
                 std::to_string(missed.front()) + " to " + std::to_string(missed.back()));
    }

    // Hourly means: each is stamped with the end of its hour and, as the
    // values rise with time, lies between the values of the hour's bounds.
    // Every hour up to the last record stored before the read has one.
    void checkCondensed()
    {
        Kel::Interpolate::InterpolateParam hourlyMeans;
        hourlyMeans.method = QStringLiteral("meanA");
        hourlyMeans.interval = hour / 1000;  // seconds
        Records means;
        const Window w = during([&] { means = readAll(series, hourlyMeans); });
        figures.condensedValues += (long long)means.size();
        for (size_t i = 0; i < means.size(); ++i) {
            const Record& m = means[i];
            const double v = m.value.toDouble();
            if ((m.timestamp - t0) % hour != 0 || (i > 0 && m.timestamp <= means[i - 1].timestamp))
                return fail("hourly mean stamped " + show(m));
            if (!(v >= valueAt(m.timestamp - hour) - 1e-3 && v <= valueAt(m.timestamp)))
                return fail("hourly mean out of its hour: " + show(m));
        }
        const long long hoursStored = (plan.lastBefore[size_t(w.before)] - t0) / hour;
        for (long long h = 1; h <= hoursStored; ++h) {
            const long long label = t0 + h * hour;
            if (!std::binary_search(means.begin(), means.end(), Record{label, QVariant()},
                                    [](const Record& a, const Record& b) { return a.timestamp < b.timestamp; }))
                return fail("hourly means: none for the hour before " + std::to_string(label) + ", " +
                            std::to_string(means.size()) + " values for " + std::to_string(hoursStored) +
                            " hours stored before the read");
        }
    }

    // The first record never changes. The last is at or after the last one
    // stored before the lookup; a file the writer has just created and not
    // yet written reads as a record at its base with the value 0, as a read
    // past the end of a file gives it.
    void checkFirstAndLast()
    {
        Record first;
        Record last;
        bool foundFirst = false;
        bool foundLast = false;
        during([&] { foundFirst = series.getFirstDataRecord(first); });
        const Window w = during([&] { foundLast = series.getLastDataRecord(last); });
        figures.lookups += 2;
        if (!foundFirst || first.timestamp != t0 || !isWhole(first))
            fail("first record: " + show(first));
        const long long storedLast = plan.lastBefore[size_t(w.before)];
        const long long mayBeLast = plan.lastBefore[std::min(size_t(w.upTo), plan.calls.size())];
        if (!foundLast || last.timestamp < storedLast || last.timestamp > mayBeLast)
            return fail("last record: " + show(last) + ", stored before: " + std::to_string(storedLast));
        if (last.value == QVariant(0.0) && last.timestamp > storedLast && last.timestamp % hour == 0)
            ++figures.emptyLastFiles;
        else if (!isWhole(last))
            fail("last record torn: " + show(last));
    }

    // Records of the raw read are stored: each is found, and the lookup
    // before it ends on it or on a record between it and the one read
    // before it.
    void checkFinds(const Records& raw)
    {
        if (raw.size() < 2)
            return;
        std::uniform_int_distribution<size_t> pick(1, raw.size() - 1);
        for (int i = 0; i < kLookupsPerRound; ++i) {
            const size_t k = pick(random);
            const long long ts = raw[k].timestamp;
            Record found;
            const bool hit = series.findDataRecord(ts, found);
            if (!hit || found.timestamp != ts || !isWhole(found))
                fail("find " + std::to_string(ts) + (hit ? ": " : ": not found, ") + show(found));
            Record prev;
            const bool hitBefore = series.findPrevDataRecord(ts, prev);
            if (!hitBefore || prev.timestamp > ts || prev.timestamp < raw[k - 1].timestamp || !isWhole(prev))
                fail("find before " + std::to_string(ts) + (hitBefore ? ": " : ": not found, ") + show(prev) +
                     ", read before it: " + show(raw[k - 1]));
            figures.lookups += 2;
        }
    }

    void checkCount()
    {
        long long n = 0;
        const Window w = during([&] {
            n = series.getCount({}, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD, true, false,
                                false);
        });
        ++figures.counts;
        const long long atLeast = plan.countBefore[size_t(w.before)];
        const long long atMost = plan.countBefore[std::min(size_t(w.upTo), plan.calls.size())];
        if (n < atLeast || n > atMost)
            fail("count " + std::to_string(n) + ", between " + std::to_string(atLeast) + " and " +
                 std::to_string(atMost) + " expected");
    }

    TSFileStorage series;
    const WritePlan& plan;
    const WriterState& writer;
    std::mt19937 random;
    ReaderFigures figures;
};

// Files and directories (each made by a split) of the series' tree.
std::pair<int, int> filesAndDirectories(const QString& baseDir)
{
    int files = 0;
    int dirs = 0;
    QDirIterator it(baseDir, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        (it.fileInfo().isDir() ? dirs : files) += 1;
    }
    return {files, dirs};
}

} // namespace

// One writer thread appends, inserts and thereby splits files down to hour
// files; three reader threads read the series meanwhile, each through its
// own storage object, until the writer is done and once more after that.
TEST(Threads, ReadersBesideAWriterThreadSeeEveryStoredRecordWholeAndInOrder)
{
    // Arrange: the first call is written before the threads start, so that
    // the series is never empty for a reader.
    const WritePlan plan;
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    LogCapture log;
    TSFileStorage first(dir.path(), QMetaType::Double, kMaxFileSize);
    ASSERT_TRUE(first.writeDataRecords(plan.calls[0], false, false));
    WriterState state;
    state.done = 1;

    // Act
    QElapsedTimer clock;
    clock.start();
    std::atomic<int> failedWrites{0};
    std::thread writer([&, path = dir.path()] {
        TSFileStorage series(path, QMetaType::Double, kMaxFileSize);
        for (size_t c = 1; c < plan.calls.size(); ++c) {
            if (!series.writeDataRecords(plan.calls[c], false, false))
                ++failedWrites;
            state.done.store(int(c + 1), std::memory_order_release);
        }
        state.writing.store(false, std::memory_order_release);
    });
    std::vector<ReaderFigures> figures(kReaders);
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i)
        readers.emplace_back([&, i, path = dir.path()] { figures[size_t(i)] = Reader(path, plan, state, i).run(); });
    writer.join();
    const qint64 writerMs = clock.elapsed();
    for (std::thread& reader : readers)
        reader.join();
    const qint64 totalMs = clock.elapsed();

    // Assert
    EXPECT_EQ(failedWrites.load(), 0);
    TSFileStorage series(dir.path(), QMetaType::Double, kMaxFileSize);
    const auto [files, splits] = filesAndDirectories(series.baseDir);
    EXPECT_GT(splits, 20) << "the series was to be split down to hour files while it was read";
    long long recordsRead = 0;
    for (int i = 0; i < kReaders; ++i) {
        const ReaderFigures& f = figures[size_t(i)];
        SCOPED_TRACE("reader " + std::to_string(i));
        for (const std::string& failure : f.failures)
            ADD_FAILURE() << failure;
        EXPECT_GE(f.roundsWhileWriting, 2);
        recordsRead += f.recordsRead;
        std::cout << "Threads: reader " << i << ": " << f.rounds << " rounds (" << f.roundsWhileWriting
                  << " beside the writer), " << f.recordsRead << " raw records checked, " << f.condensedValues
                  << " hourly means, " << f.lookups << " lookups (" << f.emptyLastFiles
                  << " last lookups met a new empty file), " << f.counts << " counts\n";
        RecordProperty("reader" + std::to_string(i) + "Rounds", f.rounds);
    }
    std::cout << "Threads: writer " << plan.calls.size() << " calls, " << plan.written.size() << " records, "
              << splits << " splits, " << files << " files, in " << writerMs << " ms; readers done after "
              << totalMs << " ms; " << recordsRead << " raw records checked\n";
    RecordProperty("writerCalls", int(plan.calls.size()));
    RecordProperty("splits", splits);
    RecordProperty("rawRecordsChecked", int(recordsRead));
    RecordProperty("milliseconds", int(totalMs));
    for (const Kel::LogEntry& e : log.entries)
        ADD_FAILURE() << "logged: " << e.message.toStdString();
}
