// The series a command works on (DIR and --type) and the read request built
// from the options that read, count and plot share.
#pragma once

#include "CommandLine.h"
#include "TimeText.h"

#include "TSFileStorage.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <vector>

namespace kelts {

// 4 MiB: a day of one-second double readings stays in one file.
constexpr int kDefaultMaxFileSize = 4 * 1024 * 1024;

std::unique_ptr<Kel::TSFileStorage> makeStorage(const QString& dir, QMetaType::Type type,
                                                int maxFileSize = kDefaultMaxFileSize);

// Throws UsageError when the directory does not exist.
void requireDirectory(const QString& dir);
// Throws NothingFound when DIR holds no series of the storage's type,
// naming what it does hold.
void requireSeries(Kel::TSFileStorage& storage, QMetaType::Type type);

// Why the directory cannot be listed ("Permission denied"), or an empty
// string when it can: an unreadable directory lists as empty, which must
// not pass for one.
QString unlistable(const QString& dir);

// The series under a directory: the directory itself when it holds value
// directories, otherwise every directory below it that does (a series'
// own directories are not searched further), sorted. Directories that
// cannot be listed are added to `unreadable` with the reason.
QStringList seriesUnder(const QString& root, QStringList& unreadable);

// The name of each series in a table or chart: its directory's name, or its
// path where two names are alike.
QStringList columnNames(const QStringList& dirs);

// The value directories under DIR ("D", "I", ...), sorted; companions
// ("DP", "DO") are not among them.
QStringList markersIn(const QString& dir);
// The value types kept under a marker: "bool, char or uchar" for "B".
QString typesOfMarker(const QString& marker);
// The type a marker is read as when no --type is given: the first of them.
QMetaType::Type representativeType(const QString& marker);

// The bound as the library takes it: its own constants for now, first and
// last, milliseconds otherwise. A shifted first or last is resolved with the
// series' records; throws NothingFound for an empty series.
long long resolveBound(const TimeBound& bound, Kel::TSFileStorage& storage);

// The instant a bound stands for; false for first or last of a series
// without records.
bool instantOf(const TimeBound& bound, Kel::TSFileStorage& storage, long long& ms);

// Fails with a usage error when the range ends before it starts.
void checkRange(const CommandLine& cl, const TimeBound& from, const TimeBound& to,
                Kel::TSFileStorage& storage);

// What read, count and plot ask the library for.
struct ReadRequest {
    Kel::Interpolate::InterpolateParam param;
    std::vector<Kel::Interpolate::InterpolateParam> chain;
    TimeBound from{TimeBound::First, 0};
    TimeBound to{TimeBound::Last, 0};
    bool labelAtStart = false;
    int limit = 0;   // 0: no limit
    QString templateName;
};

// --from --to --method --interval --template --offset-min --filters --align
// --label-start, and --limit when asked for.
void addRequestOptions(CommandLine& cl, bool withLimit);
ReadRequest requestFromOptions(const CommandLine& cl, QMetaType::Type type, bool withLimit);

// The engine's reading of a method string and interval: the method, and
// whether it averages minimum and maximum.
struct MethodReading {
    Kel::Interpolate::InterpolateMethod method = Kel::Interpolate::RAW;
    bool average = false;
};
MethodReading readMethod(const Kel::Interpolate::InterpolateParam& param);
// "meanA", "minMax", ... as method strings spell it; "raw" for RAW.
QString methodName(Kel::Interpolate::InterpolateMethod method);

// The difference keyword of a method string ("diffCtrUpCleaned", "diff"),
// or an empty string.
QString differenceKeyword(const QString& method);

// True for a read that returns the stored records unchanged, which may be
// read in pieces.
bool isPlainRaw(const ReadRequest& request);

using Records = std::vector<Kel::Interpolate::DataRecord>;

// Reads the raw records of the range in pieces of 100,000, each starting
// 1 ms after the last record of the piece before, and hands each to take,
// with a progress line; stops at the request's limit. Returns the records
// read; throws UsageError when the storage cannot read.
long long readRawInPieces(Kel::TSFileStorage& storage, const ReadRequest& r, long long from, long long to,
                          const QString& command, const std::function<void(const Records&)>& take);

// How a read ends: EXIT_DAMAGED, with a warning that names kelts check, when
// the library logged a failure during the command or a raw read gave fewer
// records than the files hold in its range (a damaged record ends the
// library's walk without a word); EXIT_DONE otherwise. For a raw read,
// `returned` records came back and `limit` (0: none) capped them; a
// condensed read passes returned < 0.
int readOutcome(const QString& command, Kel::TSFileStorage& storage, const QString& dir, long long from,
                long long to, long long returned, long long limit);

// "meanA, 1h, aligned" for headings and chart titles.
QString describeRequest(const ReadRequest& request);

} // namespace kelts
