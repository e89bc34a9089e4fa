// Cases: what the groups of cases of one run share (the workload, the
// scratch directory, the run plan, the table, the series the writing cases
// leave for the reading ones, the peer's table) and the small helpers they
// all use. Each group lives in a file of its own.
#pragma once

#include "Harness.h"
#include "SqliteSeries.h"
#include "Table.h"
#include "Workload.h"

#include "TSFileStorage.h"

#include <functional>
#include <memory>
#include <string>

namespace bench {

// The size limit of every series of the run: a day of one record a second
// (1,036,800 bytes) stays one file, a month is split into days.
constexpr int kMaxFileSize = 2000000;

struct Context {
    const Workload& work;
    const DataDir& dir;
    RunPlan plan;
    Table table;
    std::string seriesDir;   // the series the append in batches left: day files
    std::string counterDir;  // the counter series, for the difference methods
    std::string limitDir;    // the day files of the write(2) limit
    std::unique_ptr<SqliteSeries> sqlite;
};

void runLimitCases(Context& c);   // write(2), read(2) + decode, the output vector's bounds
void runWriteCases(Context& c);   // appends, SQLite's bulk insert, the bytes they leave
void runReadCases(Context& c);    // raw, condensed and counted reads beside SQLite's
void runMethodCases(Context& c);  // every method hourly beside the mean
void runLookupCases(Context& c);  // single records beside SQLite's
void runChangeCases(Context& c);  // inserts, overwrites, back-fill, delete beside SQLite's inserts
void runStringCases(Context& c);  // a QString series
void runToolCases(Context& c);    // kelts write and read beside the sqlite3 shell
void runManySeriesCases(Context& c);  // one append to each of 500 series beside SQLite
void runServeCases(Context& c);   // kelts serve under 50 clients
void runPythonCases(Context& c);  // the Python module's read into and write from numpy

std::unique_ptr<Kel::TSFileStorage> openSeries(const std::string& dir,
                                               QMetaType::Type type = QMetaType::Double,
                                               int maxFileSize = kMaxFileSize);

// Writes records [0, count) in batches through the public API; makeBatch(from, n)
// builds each batch, untimed. Returns the seconds of the write calls.
double appendInBatches(Kel::TSFileStorage& series, long long count, long long batch,
                       const std::function<Records(long long, long long)>& makeBatch);

Kel::Interpolate::InterpolateParam request(const char* method, long long intervalSeconds);

// A case that does not do what it should ends the run: its figure would be
// meaningless.
void check(bool ok, const std::string& what);

// "12.3 us a call" for the median rate of a case measured in calls.
std::string perCall(const Rates& callRates);

} // namespace bench
