// Every file-system call of every operation may fail. Each operation runs on
// a fresh copy of a series once per call it makes, with that call failing
// (EIO, ENOSPC, EACCES, EMFILE, a short write, and EIO from that call on),
// until it completes without reaching the call. After each fault: the
// process is alive, every record stored before is read back with its value
// (the operation's own records old or new, each whole), a failed write says
// so at level 2 with the file's path, and with the fault lifted the same
// operation completes as if nothing had happened.

#include "StorageFixture.h"
#include "TSFileColumns.h"
#include "StoredRecords.h"
#include "SyscallFaults.h"

#include <QDirIterator>

#include <algorithm>

#include <cstdio>
#include <functional>
#include <map>

using namespace Kel::test;
using Kel::TSFileInfo;
using Kel::TSFileStorage;
namespace faults = Kel::test::faults;

namespace {

const long long t0 = ms("2024-05-07T00:00:00Z");
const long long hour = 3600000LL;
constexpr int kSizeLimit = 300;  // day files, split to hours by the "split" operation

QVariant valueFor(QMetaType::Type type, double n)
{
    if (type == QMetaType::QString)
        return QStringLiteral("v%1").arg(n);
    if (type == QMetaType::Float)
        return float(n);
    return n;
}

Records at(QMetaType::Type type, std::initializer_list<double> hours, double shift = 0)
{
    Records r;
    for (double h : hours)
        r.push_back({t0 + (long long)(h * hour), valueFor(type, h + shift)});
    return r;
}

// What an operation gave back: its result and, for reads, the records.
struct Outcome {
    bool ok = false;
    Records records;
    long long number = 0;
    bool operator==(const Outcome& o) const
    {
        return ok == o.ok && number == o.number && sameRecords(records, o.records);
    }
};

using Run = std::function<Outcome(TSFileStorage&, QMetaType::Type)>;

struct Operation {
    const char* name;
    bool changes;  // writes or deletes records
    Run run;
    // Deletes and reorganisations answer true whatever happens: only the
    // log tells of a failure.
    bool answersTrue = false;
};

Outcome written(bool ok)
{
    return {ok, {}, 0};
}

Outcome found(bool ok, const Record& rec)
{
    return {ok, ok ? Records{rec} : Records{}, 0};
}

Outcome readRange(TSFileStorage& s, const char* method, long long interval)
{
    Kel::Interpolate::InterpolateParam param;
    param.method = QString::fromLatin1(method);
    param.interval = interval;
    Outcome o;
    int noLimit = 0;
    o.ok = s.readDataRecords(param, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD, o.records,
                             false, noLimit);
    return o;
}

// The raw read in columns, as records for the comparison; text and variant
// series have no columns.
Outcome readColumns(TSFileStorage& s, QMetaType::Type type)
{
    if (type == QMetaType::QString || type == QMetaType::QVariant)
        return {true, {}, 0};
    Kel::RawColumns columns;
    Outcome o;
    o.ok = Kel::readRawColumns(s, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD, columns);
    const bool real = type == QMetaType::Double || type == QMetaType::Float;
    for (size_t i = 0; i < columns.timestamps.size(); ++i)
        o.records.push_back({columns.timestamps[i], real ? QVariant(columns.reals[i]) : QVariant(qlonglong(columns.wholes[i]))});
    return o;
}

const std::vector<Operation>& operations()
{
    static const std::vector<Operation> all = {
        {"append", true, [](TSFileStorage& s, QMetaType::Type t) { return written(s.writeDataRecords(at(t, {48, 49, 50}), false, false)); }},
        {"insert", true, [](TSFileStorage& s, QMetaType::Type t) { return written(s.writeDataRecords(at(t, {2.5, 3.5, 4.25}), false, false)); }},
        {"overwrite", true, [](TSFileStorage& s, QMetaType::Type t) { return written(s.writeDataRecords(at(t, {10, 11, 30}, 100), false, true)); }},
        {"backfill", true, [](TSFileStorage& s, QMetaType::Type t) { return written(s.writeDataRecords(at(t, {30.5, 31.5, 32}, 7), true, false)); }},
        {"batch across files", true, [](TSFileStorage& s, QMetaType::Type t) {
             return written(s.writeDataRecords(at(t, {-11.5, 5.5, 31, 600}, 3), true, true));
         }},
        {"split", true, [](TSFileStorage& s, QMetaType::Type t) {
             Records r;
             for (int m = 1; m <= 20; ++m)
                 r.push_back({t0 + 27 * hour + m * 60000LL, valueFor(t, m)});
             return written(s.writeDataRecords(r, false, false));
         }},
        {"reorgVarFile", true, [](TSFileStorage& s, QMetaType::Type) {
             const TSFileInfo info = s.findFile(t0);
             QFile file(info.filePath());
             s.reorgVarFile(&file, info);
             return written(true);
         }, true},
        {"partial delete", true, [](TSFileStorage& s, QMetaType::Type) { return written(s.deleteDataRecords(t0 + 3 * hour, t0 + 8 * hour)); }, true},
        {"whole-file delete", true, [](TSFileStorage& s, QMetaType::Type) { return written(s.deleteDataRecords(t0 - 1, t0 + 24 * hour)); }, true},
        {"delete everything", true, [](TSFileStorage& s, QMetaType::Type) {
             return written(s.deleteDataRecords(TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD));
         }, true},
        {"raw read", false, [](TSFileStorage& s, QMetaType::Type) { return readRange(s, "", 0); }},
        {"raw columns", false, [](TSFileStorage& s, QMetaType::Type t) { return readColumns(s, t); }},
        {"hourly mean", false, [](TSFileStorage& s, QMetaType::Type) { return readRange(s, "meanA", hour); }},
        {"first", false, [](TSFileStorage& s, QMetaType::Type) { Record r; const bool ok = s.getFirstDataRecord(r); return found(ok, r); }},
        {"last", false, [](TSFileStorage& s, QMetaType::Type) { Record r; const bool ok = s.getLastDataRecord(r); return found(ok, r); }},
        {"find", false, [](TSFileStorage& s, QMetaType::Type) { Record r; const bool ok = s.findDataRecord(t0 + 30 * hour, r); return found(ok, r); }},
        {"prev", false, [](TSFileStorage& s, QMetaType::Type) { Record r; const bool ok = s.findPrevDataRecord(t0 + 30 * hour + 1, r); return found(ok, r); }},
        {"raw count", false, [](TSFileStorage& s, QMetaType::Type) {
             return Outcome{true, {}, s.getCount({}, {}, t0 + 2 * hour, t0 + 40 * hour, true, false, false)};
         }},
        {"hourly count", false, [](TSFileStorage& s, QMetaType::Type) {
             Kel::Interpolate::InterpolateParam p;
             p.method = QStringLiteral("count");
             p.interval = hour;
             return Outcome{true, {}, s.getCount(p, {}, t0, t0 + 40 * hour, true, false, false)};
         }},
    };
    return all;
}

const std::vector<faults::Plan>& plans()
{
    static const std::vector<faults::Plan> all = {
        {faults::Fault::Eio, 0, false},        {faults::Fault::Enospc, 0, false},
        {faults::Fault::Eacces, 0, false},     {faults::Fault::Emfile, 0, false},
        {faults::Fault::ShortWrite, 0, false}, {faults::Fault::Eio, 0, true},
    };
    return all;
}

void copyTree(const QString& from, const QString& to)
{
    QDir().mkpath(to);
    QDirIterator it(from, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString target = to + path.mid(from.size());
        if (it.fileInfo().isDir())
            QDir().mkpath(target);
        else
            QFile::copy(path, target);
    }
}

using State = std::map<long long, QVariant>;

State stateOf(const QString& dir, QMetaType::Type type)
{
    TSFileStorage series(dir, type, kSizeLimit);
    State state;
    for (const Record& r : type == QMetaType::Float ? storedRecords(series) : readAll(series))
        state.emplace(r.timestamp, r.value);
    return state;
}

// Where a series after a failed operation differs from what it may hold:
// every record before and after the operation that the operation left alone,
// and each of its own records old, new or (where it added or deleted it)
// missing.
QString damage(const State& before, const State& after, const State& now, bool valuesLost)
{
    for (const auto& [ts, value] : now) {
        const auto b = before.find(ts);
        const auto a = after.find(ts);
        const bool ownRecord = b == before.end() || a == after.end() || b->second != a->second;
        if (valuesLost && ownRecord)
            continue;
        if ((b == before.end() || b->second != value) && (a == after.end() || a->second != value))
            return QStringLiteral("record %1 reads as %2, neither old nor new").arg(ts).arg(value.toString());
    }
    for (const auto& [ts, value] : before) {
        const auto a = after.find(ts);
        if (a != after.end() && a->second == value && !now.count(ts))
            return QStringLiteral("stored record %1 was lost").arg(ts);
    }
    return QString();
}

bool sameTimes(const State& a, const State& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) {
               return x.first == y.first;
           });
}

bool loggedFailureOn(const LogCapture& log, const QString& dir)
{
    for (const Kel::LogEntry& e : log.entries)
        if (e.level == 2 && e.message.contains(dir))
            return true;
    return false;
}

struct Case {
    QMetaType::Type type;
    const Operation* operation;
};

std::string caseName(const testing::TestParamInfo<Case>& info)
{
    std::string name = std::string(QMetaType(info.param.type).name()) + "_" + info.param.operation->name;
    for (char& c : name)
        if (!isalnum(static_cast<unsigned char>(c)))
            c = '_';
    return name;
}

std::vector<Case> allCases()
{
    std::vector<Case> cases;
    for (QMetaType::Type type : {QMetaType::Double, QMetaType::Float, QMetaType::QString})
        for (const Operation& op : operations())
            cases.push_back({type, &op});
    return cases;
}

// Totals over the program's run, printed at its end for the reliability page.
struct Totals {
    long long points = 0;
    long long failedWrites = 0;
    long long readsThatDiffered = 0;
    long long silentReads = 0;
    ~Totals()
    {
        if (points == 0)
            return;
        std::printf("fault sweep: %lld injection points, %lld failed writes, %lld reads that differed "
                    "(%lld without a level-2 line)\n",
                    points, failedWrites, readsThatDiffered, silentReads);
        for (const auto& [call, n] : faults::callsSeen())
            std::printf("  %s: %lld calls\n", call.c_str(), n);
    }
} totals;

class FaultSweep : public testing::TestWithParam<Case> {
protected:
    void SetUp() override
    {
        // Qt warns on stderr of every seek that fails; the storage's own log
        // says what matters.
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        type = GetParam().type;
        op = GetParam().operation;
        templateDir = scratch.path() + QStringLiteral("/template");
        TSFileStorage series(templateDir, type, kSizeLimit);
        // Written in steps, so that the files split down to day files.
        for (int from = 0; from < 48; from += 6) {
            Records batch;
            for (int h = from; h < from + 6; ++h)
                batch.push_back({t0 + h * hour, valueFor(type, h)});
            ASSERT_TRUE(series.writeDataRecords(batch, false, false));
        }
        ASSERT_TRUE(series.writeDataRecords(at(type, {-12, -11, -10}), false, false));
        before = stateOf(templateDir, type);
        ASSERT_EQ(before.size(), 51u);

        // The outcome and the series after the operation where nothing fails.
        const QString clean = fresh();
        {
            TSFileStorage s(clean, type, kSizeLimit);
            expected = op->run(s, type);
        }
        after = stateOf(clean, type);
    }

    // A new copy of the series before the operation.
    QString fresh()
    {
        const QString dir = scratch.path() + QStringLiteral("/run%1").arg(++runs);
        copyTree(templateDir, dir);
        return dir;
    }

    // Runs the operation with the plan's call failing; false once the
    // operation completed without reaching that call.
    bool injectAt(faults::Plan plan)
    {
        const QString dir = fresh();
        const QString where = QStringLiteral("%1, %2 at call %3%4")
                                  .arg(QString::fromLatin1(op->name), QString::fromLatin1(faults::faultName(plan.fault)))
                                  .arg(plan.failAt)
                                  .arg(plan.persistent ? QStringLiteral(" and on") : QString());
        SCOPED_TRACE(where.toStdString());
        LogCapture log;
        Outcome got;
        bool fired = false;
        {
            TSFileStorage s(dir, type, kSizeLimit);
            faults::Armed armed(plan);
            got = op->run(s, type);
            fired = faults::fired();
        }
        if (!fired)
            return false;
        ++totals.points;
        const State now = stateOf(dir, type);
        // A side file that cannot be opened for append stores the records
        // with position 0, as designed: their values are lost, logged.
        const bool valuesLost = log.count(QStringLiteral(".var' for write (writeDataRecord)")) > 0;
        const QString damaged = damage(before, after, now, valuesLost);
        EXPECT_TRUE(damaged.isEmpty()) << damaged.toStdString() << " (failed call: " << faults::firedCall() << ")";
        const bool complete = valuesLost ? sameTimes(now, after) : now == after;
        if (op->changes && got.ok && !complete) {
            ++totals.failedWrites;
            EXPECT_TRUE(op->answersTrue) << "a write that failed part-way returned true (failed call: "
                                         << faults::firedCall() << ")";
            EXPECT_TRUE(loggedFailureOn(log, dir)) << "a failed operation without a level-2 line naming its file";
        }
        if (op->changes && !got.ok) {
            ++totals.failedWrites;
            EXPECT_TRUE(loggedFailureOn(log, dir)) << "a failed write without a level-2 line naming its file";
        }
        if (!op->changes && !(got == expected)) {
            ++totals.readsThatDiffered;
            if (!loggedFailureOn(log, dir)) {
                ++totals.silentReads;
                std::printf("  a read that differed without a level-2 line: %s (failed call: %s)\n",
                            qPrintable(where), faults::firedCall().c_str());
                for (const Kel::LogEntry& e : log.entries)
                    std::printf("    logged (%d): %s\n", e.level, qPrintable(e.message));
            }
        }

        if (HasFailure())
            for (const Kel::LogEntry& e : log.entries)
                std::printf("  logged (%d): %s\n", e.level, qPrintable(e.message));

        TSFileStorage again(dir, type, kSizeLimit);
        const Outcome rerun = op->run(again, type);
        if (op->changes) {
            EXPECT_TRUE(rerun.ok) << "the operation run again failed";
            EXPECT_TRUE(stateOf(dir, type) == after) << "the operation run again left other records";
        } else {
            EXPECT_TRUE(rerun == expected) << "the read run again gave other results";
        }
        QDir(dir).removeRecursively();
        return !HasFailure();
    }

    QTemporaryDir scratch;
    QMetaType::Type type = QMetaType::Double;
    const Operation* op = nullptr;
    QString templateDir;
    State before;
    State after;
    Outcome expected;
    int runs = 0;
};

} // namespace

TEST_P(FaultSweep, EveryFailingCallLeavesTheStoredRecordsAndTheOperationCompletesWhenRunAgain)
{
    ASSERT_TRUE(expected.ok || !op->changes) << "the operation fails without a fault";
    long long points = 0;
    for (faults::Plan plan : plans()) {
        for (plan.failAt = 1; injectAt(plan); ++plan.failAt)
            ++points;
        if (HasFailure())
            return;
    }
    RecordProperty("injection_points", int(points));
    std::printf("%s, %s: %lld injection points\n", QMetaType(type).name(), op->name, points);
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultSweep, testing::ValuesIn(allCases()), caseName);

// One chosen call failing, where the sweep shows only that nothing is lost.
class FailingCall : public StorageFixture {};

// A new file of a split that cannot be opened is named where it was to stand.
TEST_F(FailingCall, SplitFileThatCannotBeOpenedIsLoggedByItsPlaceInTheTree)
{
    useSeries(QMetaType::Double, 100);
    ASSERT_TRUE(write(hourly(0, 5)));
    ASSERT_TRUE(write(hourly(5, 10)));  // the year file is split into months
    LogCapture log;
    {
        faults::Plan plan;
        plan.openOf = "/2024/05.split/07";  // where the split builds day 07
        faults::Armed armed(plan);
        ASSERT_TRUE(write(hourly(10, 12)));
    }
    EXPECT_TRUE(log.contains(
        QStringLiteral("Could not open '%1' for write (checkMaxFileSize)").arg(file(QStringLiteral("2024/05/07")))));
    EXPECT_TRUE(sameRecords(read(), hourly(0, 12)));
}

// A listing broken off part-way names only some of the years, in the order
// the directory gives them. The first and last lookups must then find
// nothing, never a year that is not the first or the last: a delete took the
// wrong last record for the end of the series, and removed every file after
// its range. Whatever the order, with the second name cut off one of the two
// lookups would get a wrong year. A lookup whose read fails finds nothing
// either.
TEST(BrokenListing, FirstAndLastLookupsFindNothingRatherThanAnotherFile)
{
    QTemporaryDir dir;
    TSFileStorage series(dir.path(), QMetaType::Double, 1 << 30);
    Records years;
    for (int year = 2020; year < 2030; ++year)
        years.push_back({ms(qPrintable(QStringLiteral("%1-06-01T00:00:00Z").arg(year))), double(year)});
    ASSERT_TRUE(series.writeDataRecords(years, false, false));

    int refused = 0;
    for (const bool last : {false, true}) {
        for (long long n = 1;; ++n) {
            Record rec;
            faults::arm({faults::Fault::Eio, n, false});
            const bool ok = last ? series.getLastDataRecord(rec) : series.getFirstDataRecord(rec);
            const bool fired = faults::fired();
            faults::disarm();
            if (!fired)
                break;
            refused += ok ? 0 : 1;
            if (ok) {
                EXPECT_EQ(rec.timestamp, (last ? years.back() : years.front()).timestamp) << "call " << n;
            }
        }
    }
    EXPECT_GT(refused, 0);
}
