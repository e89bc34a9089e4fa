// Kills a child process after each step by which an operation changes the
// files of a series (inserts, overwrites of text values, splits at the size
// limit, reorganisation of a side file, partial deletes) and checks what the
// child left: the records from before or after the operation, never a torn
// or lost one; and the next run of the operation must complete it. A reader
// that reads between any two of those steps must see the same, and leave
// the operation to finish as it would have.

#include "DiskSteps.h"
#include "StorageFixture.h"

#include <QDirIterator>

#include <csignal>
#include <functional>
#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

using namespace Kel::test;
using Kel::TSFileStorage;

namespace {

constexpr QMetaType::Type Double = QMetaType::Double;
constexpr QMetaType::Type Float = QMetaType::Float;
constexpr QMetaType::Type Text = QMetaType::QString;

int stepsLeft = 0;

void killAtChosenStep()
{
    if (--stepsLeft == 0)
        ::raise(SIGKILL);
}

// A read run from inside the chosen step, as another process might read.
std::function<void()> readAtStep;
bool reading = false;

void readAtChosenStep()
{
    if (reading || --stepsLeft != 0)
        return;
    reading = true;
    readAtStep();
    reading = false;
}

const long long t0 = ms("2024-05-07T00:00:00Z");
const long long hour = 3600000LL;

// One batch per day of records every interval hours: with a small size
// limit, the series ends up in several day files.
std::vector<Records> daily(QMetaType::Type type, int days, int interval)
{
    std::vector<Records> batches;
    for (int d = 0; d < days; ++d)
        batches.push_back(hourly(24 * d, 24 * (d + 1), type, interval));
    return batches;
}

struct Operation {
    const char* name;
    QMetaType::Type type;
    int maxFileSize;
    std::vector<Records> setup;  // batches written before the operation
    std::function<void(TSFileStorage&)> run;
    // The operation changes one file, which must come back whole, as it was
    // or as it became; otherwise each record on its own must.
    bool oneFile;
};

const QVariant* valueAt(const Records& records, long long ts)
{
    for (const Record& r : records)
        if (r.timestamp == ts)
            return &r.value;
    return nullptr;
}

// Each record is one that the series held before or after the operation,
// with the value of one of them, and no record that both hold is missing.
std::string perRecordFault(const Records& got, const Records& before, const Records& after)
{
    for (const Record& r : got) {
        const QVariant* b = valueAt(before, r.timestamp);
        const QVariant* a = valueAt(after, r.timestamp);
        if (!b && !a)
            return "a record that was never written at " + std::to_string(r.timestamp);
        if (!(b && *b == r.value) && !(a && *a == r.value))
            return "a torn value at " + std::to_string(r.timestamp);
    }
    for (const Record& r : before)
        if (valueAt(after, r.timestamp) && !valueAt(got, r.timestamp))
            return "a lost record at " + std::to_string(r.timestamp);
    return {};
}

QStringList leftovers(const QString& dir)
{
    QStringList found;
    const auto filters = QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot;
    for (QDirIterator it(dir, filters, QDirIterator::Subdirectories); it.hasNext();) {
        const QString path = it.next();
        if (path.endsWith(QLatin1String(".new")) || path.endsWith(QLatin1String(".new.var")) ||
            path.contains(QLatin1String(".split")) || path.endsWith(QLatin1String("/.spare")))
            found.append(path);
    }
    return found;
}

class CrashSafety : public ::testing::Test {
protected:
    std::unique_ptr<TSFileStorage> prepare(const QTemporaryDir& dir, const Operation& op)
    {
        auto series = std::make_unique<TSFileStorage>(dir.path(), op.type, op.maxFileSize);
        for (const Records& batch : op.setup)
            series->writeDataRecords(batch, false, false);
        return series;
    }

    // Runs the operation in a child that is killed after its step-th disk
    // step; false when the operation finished before that step.
    bool killedAfter(int step, TSFileStorage& series, const Operation& op)
    {
        const pid_t child = ::fork();
        if (child == 0) {
            Kel::Logger::instance().setSink([](const Kel::LogEntry&) {});
            stepsLeft = step;
            Kel::detail::diskStepListener = killAtChosenStep;
            op.run(series);
            ::_exit(0);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            return false;
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << op.name << ": child died otherwise";
        return true;
    }

    // Runs the operation on a new copy of its series and interrupts it after
    // its step-th disk step: kills it (the next run must then complete it),
    // or reads the series there beside it. False when it ended before.
    bool interruptedAt(int step, bool kill, const Operation& op, const Records& before, const Records& after)
    {
        QTemporaryDir dir;
        auto series = prepare(dir, op);
        bool interrupted = false;
        Records got;
        if (kill) {
            interrupted = killedAfter(step, *series, op);
            series = std::make_unique<TSFileStorage>(dir.path(), op.type, op.maxFileSize);
            got = readAll(*series);
            if (interrupted)
                op.run(*series);
        } else {
            readAtStep = [&] {
                TSFileStorage reader(dir.path(), op.type, op.maxFileSize);
                got = readAll(reader);
                interrupted = true;
            };
            stepsLeft = step;
            Kel::detail::diskStepListener = readAtChosenStep;
            op.run(*series);
            Kel::detail::diskStepListener = nullptr;
        }
        if (!interrupted)
            return false;
        const std::string where = op.name + std::string(kill ? ", killed after step " : ", read after step ") +
                                  std::to_string(step);
        if (op.oneFile)
            EXPECT_TRUE(sameRecords(got, before) || sameRecords(got, after))
                << where << ": neither the old nor the new records";
        else
            EXPECT_EQ(perRecordFault(got, before, after), std::string()) << where;
        EXPECT_TRUE(sameRecords(readAll(*series), after)) << where << ": the operation was not completed";
        EXPECT_EQ(leftovers(dir.path()), QStringList()) << where;
        return true;
    }
};

// The operations that rewrite files, each on a series set up for it.
std::vector<Operation> rewrites()
{
    const int big = 1 << 30;
    return {
        {"insert between records", Double, big, {hourly(0, 40, Double, 2)},
         [](TSFileStorage& s) { s.writeDataRecords(hourly(1, 12, Double, 4), false, false); }, true},
        {"insert into a Float file", Float, big, {hourly(0, 40, Float, 2)},
         [](TSFileStorage& s) { s.writeDataRecords(hourly(3, 50, Float, 6), true, false); }, true},
        {"insert of text values", Text, big, {hourly(0, 30, Text, 3)},
         [](TSFileStorage& s) { s.writeDataRecords(hourly(1, 20, Text, 5), false, false); }, true},
        {"overwrite of one text value", Text, big, {hourly(0, 20, Text)},
         [](TSFileStorage& s) { s.writeDataRecords(hourly(7, 8, Text, 1, 100), false, true); }, true},
        {"overwrite of text values", Text, big, {hourly(0, 20, Text)},
         [](TSFileStorage& s) { s.writeDataRecords(hourly(2, 24, Text, 5, 100), false, true); }, false},
        {"split at the size limit", Double, 300, {hourly(0, 20, Double), hourly(24 * 40, 24 * 40 + 2, Double)},
         [](TSFileStorage& s) { s.writeDataRecords(hourly(20, 24, Double), false, false); }, false},
        {"split of text values", Text, 200, {hourly(0, 20, Text)},
         [](TSFileStorage& s) { s.writeDataRecords(hourly(24 * 35, 24 * 35 + 5, Text), false, false); }, false},
        {"reorganisation of a side file", Text, big, {hourly(0, 20, Text), hourly(0, 20, Text, 3, 7)},
         [](TSFileStorage& s) {
             QFile file(s.findFile(t0).filePath());
             s.reorgVarFile(&file, s.findFile(t0));
         }, true},
        {"partial delete", Double, big, {hourly(0, 30, Double)},
         [](TSFileStorage& s) { s.deleteDataRecords(t0 + 5 * hour, t0 + 9 * hour); }, true},
        {"partial delete of text values", Text, big, {hourly(0, 30, Text)},
         [](TSFileStorage& s) { s.deleteDataRecords(t0 + 5 * hour, t0 + 9 * hour); }, true},
        {"delete across files", Text, 40, daily(Text, 4, 6),
         [](TSFileStorage& s) { s.deleteDataRecords(t0 + 20 * hour, t0 + 70 * hour); }, false},
        {"delete that empties a directory", Double, 30, daily(Double, 4, 6),
         [](TSFileStorage& s) { s.deleteDataRecords(t0 + 47 * hour, t0 + 72 * hour); }, false},
        {"batch over several files", Double, 60, daily(Double, 3, 6),
         [](TSFileStorage& s) { s.writeDataRecords(hourly(1, 24 * 3 + 10, Double, 7, 1000), true, true); }, false},
    };
}

} // namespace

TEST_F(CrashSafety, EveryStepOfARewriteLeavesTheOldOrTheNewRecordsToKillsAndReaders)
{
    const std::vector<Operation> operations = rewrites();
    LogCapture quiet;
    int points = 0;
    int reads = 0;
    for (const Operation& op : operations) {
        QTemporaryDir reference;
        auto series = prepare(reference, op);
        const Records before = readAll(*series);
        op.run(*series);
        const Records after = readAll(*series);
        const int pointsBefore = points;
        for (int step = 1; interruptedAt(step, true, op, before, after); ++step)
            ++points;
        EXPECT_GT(points, pointsBefore) << op.name;
        for (int step = 1; interruptedAt(step, false, op, before, after); ++step)
            ++reads;
    }
    std::cout << "Crash safety: " << points << " kill points and " << reads << " reads between steps over "
              << operations.size() << " operations; "
              << (HasFailure() ? "RECORDS LOST OR TORN" : "no record lost or torn at any") << std::endl;
    RecordProperty("killPoints", points);
    RecordProperty("readsBetweenSteps", reads);
}
