// Fuzz target: batches of writes (appends, inserts, overwrites, duplicates in
// one batch), deletes of ranges and size-limited splits, run on one series
// with a small size limit and checked after each step against a plain map
// of what the series must hold: the whole series read raw, its count, its
// first and last record, a sub-range and single finds. A reader also reads
// the series between two disk steps of the operation, as another process
// might, and must find each record as it was before or after it. A step may
// also have one file-system call fail (its number and the error fuzzed): the
// records it leaves alone must then be read as they were, and the step run
// again must complete it.

#include "DiskSteps.h"
#include "FuzzSupport.h"
#include "StoredRecords.h"
#include "SyscallFaults.h"

#include <algorithm>
#include <functional>
#include <map>
#include <optional>

using namespace Kel;
using Record = Interpolate::DataRecord;
using Model = std::map<long long, QVariant>;

namespace {

// Timestamps gather around a few instants, so that batches land in the same
// files and overwrite each other; a few lie before 1970.
// The special bounds of a read are no instants of their own.
long long plainInstant(long long t)
{
    return t >= TSFileStorage::TS_LAST_RECORD && t <= TSFileStorage::TS_NOW ? -4 : t;
}

long long pickTime(FuzzedDataProvider& in)
{
    static const long long kCentres[] = {
        1714942800000LL,   // 2024-05-05T21:00:00Z
        1704067199000LL,   // 2023-12-31T23:59:59Z, next to a year's end
        -1000LL,           // just before 1970
        -2208988800000LL,  // 1900-01-01
        253402300799000LL, // 9999-12-31T23:59:59Z
    };
    const long long centre = in.PickValueInArray(kCentres);
    static const long long kSpreads[] = {1000LL, 60000LL, 3600000LL, 86400000LL * 40};
    const long long spread = in.PickValueInArray(kSpreads);
    return plainInstant(std::min(centre + in.ConsumeIntegralInRange(-spread, spread), fuzz::kYear10000Ms - 1));
}

QVariant pickValue(FuzzedDataProvider& in, QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Int: return QVariant(in.ConsumeIntegral<int>());
    case QMetaType::Float: return QVariant(float(in.ConsumeIntegralInRange(-1000, 1000)) / 8.0f);
    case QMetaType::QString: return QVariant(QString::number(in.ConsumeIntegralInRange(0, 50)));
    default: return QVariant(double(in.ConsumeIntegralInRange(-1000, 1000)) / 4.0);
    }
}

// What a batch leaves: its records in timestamp order, equal timestamps by
// value and then input order, each one written unless the value stored so
// far equals it.
void applyBatch(Model& model, std::vector<Record> batch)
{
    std::stable_sort(batch.begin(), batch.end(), [](const Record& a, const Record& b) {
        if (a.timestamp != b.timestamp)
            return a.timestamp < b.timestamp;
        return a.value.toDouble() < b.value.toDouble();
    });
    for (const Record& r : batch) {
        auto at = model.find(r.timestamp);
        if (at == model.end())
            model.emplace(r.timestamp, r.value);
        else if (at->second != r.value)
            at->second = r.value;
    }
}

// What a delete leaves: the records from lo to hi gone, except that a range
// from at or before the first record (and not past the last) starts at 1970,
// so that the records before 1970 stay.
void applyDelete(Model& model, long long lo, long long hi)
{
    if (model.empty())
        return;
    const bool coversFirst = lo <= model.begin()->first;
    const bool coversLast = hi >= model.rbegin()->first;
    const long long from = coversFirst && !coversLast ? 0 : lo;
    if (from <= hi)
        model.erase(model.lower_bound(from), model.upper_bound(hi));
}

void expectSame(const std::vector<Record>& got, Model::const_iterator from, Model::const_iterator to,
                const char* what)
{
    if (got.size() != size_t(std::distance(from, to)))
        fuzz::fail(what);
    for (const Record& r : got) {
        if (r.timestamp != from->first || r.value != from->second)
            fuzz::fail(what);
        ++from;
    }
}

// The whole series as a reader gets it. Float lookups step by the declared
// record length and answer with other bytes, and the last record bounds a
// read: a Float series is read file by file from each file's start.
std::vector<Record> readWhole(TSFileStorage& series)
{
    if (series.valueType == QMetaType::Float)
        return test::storedRecords(series);
    std::vector<Record> all;
    int noLimit = 0;
    series.readDataRecords({}, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD, all,
                           false, noLimit);
    return all;
}

void check(TSFileStorage& series, const Model& model, FuzzedDataProvider& in)
{
    expectSame(readWhole(series), model.begin(), model.end(), "whole series differs");
    Record rec;
    if (series.getFirstDataRecord(rec) != !model.empty())
        fuzz::fail("first record");
    if (model.empty() || series.valueType == QMetaType::Float)
        return;
    if (rec.timestamp != model.begin()->first || series.getLastDataRecord(rec) != true ||
        rec.timestamp != model.rbegin()->first)
        fuzz::fail("first or last record");
    if (series.getCount({}, {}, fuzz::kYear0Ms, fuzz::kYear10000Ms, true, false, false) != (long long)model.size())
        fuzz::fail("count");

    const long long a = pickTime(in);
    const long long b = pickTime(in);
    const long long lo = std::min(a, b);
    const long long hi = std::max(a, b);
    std::vector<Record> part;
    int noLimit = 0;
    series.readDataRecords({}, {}, lo, hi, part, false, noLimit);
    expectSame(part, model.lower_bound(lo), model.upper_bound(hi), "range differs");

    const bool stored = model.count(a) > 0;
    if (series.findDataRecord(a, rec) != stored || (stored && rec.value != model.at(a)))
        fuzz::fail("find");
}

// The read between two disk steps of an operation.
struct StepReader {
    QString dir;
    QMetaType::Type type = QMetaType::Double;
    const Model* before = nullptr;
    const Model* after = nullptr;
    int stepsLeft = 0;
};
StepReader stepReader;

const QVariant* valueIn(const Model& model, long long ts)
{
    const auto at = model.find(ts);
    return at == model.end() ? nullptr : &at->second;
}

void readBetweenSteps()
{
    if (--stepReader.stepsLeft != 0)
        return;
    TSFileStorage reader(stepReader.dir, stepReader.type, 1 << 30);
    const std::vector<Record> got = readWhole(reader);
    const Model& before = *stepReader.before;
    const Model& after = *stepReader.after;
    size_t kept = 0;
    for (const Record& r : got) {
        const QVariant* b = valueIn(before, r.timestamp);
        const QVariant* a = valueIn(after, r.timestamp);
        if (!(b && *b == r.value) && !(a && *a == r.value))
            fuzz::fail("a reader between steps met a record of neither state");
        kept += b && a ? 1 : 0;
    }
    size_t both = 0;
    for (const auto& [ts, value] : before)
        both += after.count(ts);
    if (kept != both)
        fuzz::fail("a reader between steps missed a record of both states");
}

// The failing call of a step, when it has one.
std::optional<test::faults::Plan> pickFault(FuzzedDataProvider& in)
{
    using test::faults::Fault;
    static const Fault kFaults[] = {Fault::Eio, Fault::Enospc, Fault::Eacces, Fault::Emfile, Fault::ShortWrite};
    if (in.ConsumeIntegralInRange(0, 3) != 0)
        return std::nullopt;
    test::faults::Plan plan;
    plan.fault = in.PickValueInArray(kFaults);
    plan.failAt = in.ConsumeIntegralInRange(1, 400);
    plan.persistent = in.ConsumeIntegralInRange(0, 3) == 0;
    return plan;
}

// After a step with a failing call: the records that the step leaves alone
// read as they were.
void checkUntouched(const QString& dir, QMetaType::Type type, const Model& before, const Model& after)
{
    TSFileStorage reader(dir, type, 1 << 30);
    Model read;
    for (const Record& r : readWhole(reader))
        read.emplace(r.timestamp, r.value);
    for (const auto& [ts, value] : before) {
        const QVariant* a = valueIn(after, ts);
        const QVariant* r = valueIn(read, ts);
        if (a && *a == value && !(r && *r == value))
            fuzz::fail("a failing call cost a record that the step left alone");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    const QString dir = fuzz::freshScratchDir();
    static const QMetaType::Type kTypes[] = {QMetaType::Double, QMetaType::Float, QMetaType::Int,
                                             QMetaType::QString};
    const QMetaType::Type type = in.PickValueInArray(kTypes);
    TSFileStorage series(dir, type, in.ConsumeIntegralInRange(20, 2000));
    Model model;
    Model next;
    stepReader = {dir, type, &model, &next, 0};
    for (int step = 0; step < 12 && in.remaining_bytes() > 0; ++step) {
        const std::optional<test::faults::Plan> fault = pickFault(in);
        // A reader between steps would meet the failing calls too.
        stepReader.stepsLeft = fault ? 0 : in.ConsumeIntegralInRange(0, 30);
        detail::diskStepListener = stepReader.stepsLeft > 0 ? readBetweenSteps : nullptr;
        next = model;
        std::function<void(bool)> run;  // the step; its argument: a call may fail
        if (in.ConsumeIntegralInRange(0, 4) == 0) {
            const long long a = pickTime(in);
            const long long b = pickTime(in);
            const long long lo = std::min(a, b);
            const long long hi = std::max(a, b);
            applyDelete(next, lo, hi);
            run = [&series, lo, hi](bool) { series.deleteDataRecords(lo, hi); };
        } else {
            std::vector<Record> batch;
            const int n = in.ConsumeIntegralInRange(1, 60);
            for (int i = 0; i < n; ++i) {
                const bool next = i > 0 && in.ConsumeIntegralInRange(0, 3) == 0;
                const long long t = next ? plainInstant(batch.back().timestamp + 1) : pickTime(in);
                batch.push_back({t, pickValue(in, type)});
            }
            // Records the tree cannot name are refused; the rest are written.
            const auto unplaceable = [](const Record& r) { return r.timestamp >= fuzz::kYear10000Ms; };
            const bool refused = std::any_of(batch.begin(), batch.end(), unplaceable);
            std::vector<Record> placed = batch;
            placed.erase(std::remove_if(placed.begin(), placed.end(), unplaceable), placed.end());
            applyBatch(next, std::move(placed));
            const bool backfill = in.ConsumeBool();
            const bool overwritten = in.ConsumeBool();
            run = [&series, batch, refused, backfill, overwritten](bool underFault) {
                const bool written = series.writeDataRecords(batch, backfill, overwritten);
                if (written == refused && !(underFault && test::faults::fired()))
                    fuzz::fail(refused ? "unplaceable record accepted" : "write refused");
            };
        }
        if (fault) {
            {
                test::faults::Armed armed(*fault);
                run(true);
            }
            checkUntouched(dir, type, model, next);
        }
        run(false);
        detail::diskStepListener = nullptr;
        model = next;
        check(series, model, in);
    }
    return 0;
}
