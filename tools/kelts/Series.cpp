// Opening the series of a command and building its read request.

#include "Series.h"

#include "Commands.h"
#include "Terminal.h"
#include "ValueText.h"
#include "MethodKeywords.h"
#include "RecordCodec.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QSet>
#include <QTime>

#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>

namespace kelts {

namespace {

using Kel::Interpolate;
using Kel::TSFileStorage;

QString markerOf(QMetaType::Type type)
{
    return TSFileStorage(QString(), type, 0).getMarkerForValueType(type);
}

bool templateExists(QString name)
{
    if (name.startsWith(u'!'))
        name.remove(0, 1);
    const QJsonArray entries = QJsonDocument::fromJson(Interpolate::getTemplates().toUtf8()).array();
    for (const QJsonValue& entry : entries)
        if (entry.toObject().value(QLatin1String("name")).toString() == name)
            return true;
    return false;
}

// The keys a filter understands; a misspelt key would otherwise filter
// nothing without a word.
void checkFilter(const CommandLine& cl, const QJsonObject& filter)
{
    static const QSet<QString> keys{QStringLiteral("months"),       QStringLiteral("weekDays"),
                                    QStringLiteral("timeStart"),    QStringLiteral("duration"),
                                    QStringLiteral("valueCompare"), QStringLiteral("value")};
    for (auto it = filter.begin(); it != filter.end(); ++it)
        if (!keys.contains(it.key()))
            cl.fail(QStringLiteral("--filters: unknown key '%1' (keys: months, weekDays, timeStart, "
                                   "duration, valueCompare, value)")
                        .arg(it.key()));
    const QString timeStart = filter.value(QLatin1String("timeStart")).toString();
    if (!timeStart.isEmpty() && !QTime::fromString(timeStart, Qt::ISODateWithMs).isValid())
        cl.fail(QStringLiteral("--filters: timeStart '%1' is not a time of day such as 06:00").arg(timeStart));
    static const QSet<QString> comparisons{QStringLiteral("lt"), QStringLiteral("lte"), QStringLiteral("gt"),
                                           QStringLiteral("gte"), QStringLiteral("neq"), QStringLiteral("eq")};
    const QString compare = filter.value(QLatin1String("valueCompare")).toString();
    if (!compare.isEmpty() && !comparisons.contains(compare.toLower()))
        cl.fail(QStringLiteral("--filters: valueCompare '%1' is none of lt, lte, gt, gte, neq, eq").arg(compare));
}

// --filters takes JSON, or @FILE for JSON kept in a file.
QJsonArray filtersFromOption(const CommandLine& cl)
{
    QByteArray json = cl.value(QStringLiteral("filters")).toUtf8();
    if (json.startsWith('@')) {
        QFile file(QString::fromUtf8(json.mid(1)));
        if (!file.open(QIODevice::ReadOnly))
            cl.fail(QStringLiteral("--filters: cannot read '%1'").arg(file.fileName()));
        json = file.readAll();
    }
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError)
        cl.fail(QStringLiteral("--filters: %1 at offset %2").arg(error.errorString()).arg(error.offset));
    const QJsonArray filters = doc.isObject() ? QJsonArray{doc.object()} : doc.array();
    for (const QJsonValue& f : filters) {
        if (!f.isObject())
            cl.fail(QStringLiteral("--filters: give an object or an array of objects"));
        checkFilter(cl, f.toObject());
    }
    return filters;
}

// A method name for a string that meant one: " (did you mean meanA?)" for
// "avg"; the method names where no guess fits.
QString methodHint(const QString& lowered)
{
    static const std::pair<const char*, const char*> guesses[] = {
        {"mean", "meanA"},   {"avg", "meanA"}, {"average", "meanA"}, {"minimum", "min"},
        {"maximum", "max"},  {"total", "sum"}, {"linear", "prevNextLinearFill"}, {"interpol", "prevNextLinearFill"}};
    for (const auto& [start, method] : guesses)
        if (lowered.startsWith(QLatin1String(start)))
            return QStringLiteral(" (did you mean %1?)").arg(QLatin1String(method));
    QStringList names;
    for (const Kel::detail::MethodKeyword& k : Kel::detail::kMethodKeywords)
        names << QLatin1String(k.name);
    return QStringLiteral(" (a method string starts with one of %1)").arg(names.join(QStringLiteral(", ")));
}

void checkMethod(const CommandLine& cl, const ReadRequest& r, QMetaType::Type type)
{
    const QString rest = Kel::detail::withoutDifference(r.param.method);
    if (r.param.interval == 0) {
        if (!rest.isEmpty())
            cl.fail(QStringLiteral("method '%1' condenses into intervals: give --interval as well "
                                   "(a raw read takes only diff or diffCtrUpCleaned)")
                        .arg(r.param.method));
        return;
    }
    if (Kel::detail::isVariableType(type))
        cl.fail(QStringLiteral("%1 series are read raw only: leave out --interval").arg(valueTypeName(type)));
    const MethodReading reading = readMethod(r.param);
    const QString name = methodName(reading.method);
    // The library reads a string that starts with no method name as linear
    // interpolation and filling: "mean" would print interpolated samples, not
    // means. Only an operator who asks for that gets it.
    if (!rest.isEmpty() && !rest.startsWith(name.toLower()) && !cl.isSet(QStringLiteral("method-as-is")))
        cl.fail(QStringLiteral("method '%1' starts with no method name, and the storage would read it as %2 "
                               "with linear interpolation and filling%3; --method-as-is passes it on unchanged")
                    .arg(r.param.method, name, methodHint(rest)));
}

} // namespace

namespace {

// A plain raw read is fetched this many records at a time, so that a year
// of readings is never held in memory at once.
constexpr int kPieceRecords = 100000;

// The share of the range read so far, for the progress line.
QString progressState(long long at, long long from, long long to, long long records)
{
    const int percent = to > from ? int(std::clamp((at - from) * 100 / (to - from), 0LL, 100LL)) : 100;
    return QStringLiteral("%1  %2 records  %3%").arg(isoTime(at), grouped(records)).arg(percent);
}

} // namespace

long long readRawInPieces(TSFileStorage& storage, const ReadRequest& r, long long from, long long to,
                          const QString& command, const std::function<void(const Records&)>& take)
{
    Progress progress(QStringLiteral("reading"));
    long long progressFrom = 0;
    long long progressTo = 0;
    instantOf(r.from, storage, progressFrom);
    instantOf(r.to, storage, progressTo);
    long long total = 0;
    long long start = from;
    for (;;) {
        const long long wanted = r.limit > 0 ? std::min<long long>(kPieceRecords, r.limit - total) : kPieceRecords;
        int count = int(wanted);
        Records piece;
        if (!storage.readDataRecords(r.param, {}, start, to, piece, r.labelAtStart, count))
            throw UsageError{QStringLiteral("%1 %2: the storage could not read the series (see the messages above)")
                                 .arg(programName(), command)};
        take(piece);
        total += static_cast<long long>(piece.size());
        if (static_cast<long long>(piece.size()) < wanted || (r.limit > 0 && total >= r.limit))
            break;
        start = piece.back().timestamp + 1;
        progress.show(progressState(start, progressFrom, progressTo, total));
    }
    return total;
}


int readOutcome(const QString& command, TSFileStorage& storage, const QString& dir, long long from, long long to,
                long long returned, long long limit)
{
    const QString check = QStringLiteral("run '%1 check %2'").arg(programName(), dir);
    // A Float series counts its records by their declared length, which is
    // not the length they take (see docs/storage.md): no comparison holds.
    if (returned >= 0 && storage.valueType != QMetaType::Float) {
        long long stored = storage.getCount({}, {}, from, to, true, false, false);
        if (limit > 0)
            stored = std::min(stored, limit);
        if (returned < stored) {
            printErrorLine(QStringLiteral("%1 %2: warning: %3 of the %4 records stored in the range came back: a "
                                          "damaged record ends the storage's walk; %5")
                               .arg(programName(), command, grouped(returned), grouped(stored), check));
            return EXIT_DAMAGED;
        }
    }
    if (libraryFailures() > 0) {
        printErrorLine(QStringLiteral("%1 %2: warning: the storage failed during the read (see the messages "
                                      "above): what was printed may be incomplete; %3")
                           .arg(programName(), command, check));
        return EXIT_DAMAGED;
    }
    return EXIT_DONE;
}

std::unique_ptr<TSFileStorage> makeStorage(const QString& dir, QMetaType::Type type, int maxFileSize)
{
    return std::make_unique<TSFileStorage>(dir, type, maxFileSize);
}

void requireDirectory(const QString& dir)
{
    if (!QFileInfo(dir).isDir())
        throw UsageError{QStringLiteral("%1: no such directory: %2").arg(programName(), dir)};
}

QStringList markersIn(const QString& dir)
{
    QSet<QString> known;
    for (const ValueType& t : valueTypes())
        known.insert(markerOf(t.type));
    QStringList found;
    for (const QString& name : QDir(dir).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name))
        if (known.contains(name))
            found << name;
    return found;
}

QString unlistable(const QString& dir)
{
    DIR* listing = ::opendir(QFile::encodeName(dir).constData());
    if (!listing)
        return QString::fromLocal8Bit(std::strerror(errno));
    ::closedir(listing);
    return QString();
}

namespace {

void collectSeries(const QString& dir, QStringList& series, QStringList& unreadable)
{
    const QString why = unlistable(dir);
    if (!why.isEmpty()) {
        unreadable << QStringLiteral("%1: cannot be read: %2").arg(dir, why);
        return;
    }
    if (!markersIn(dir).isEmpty()) {
        series << dir;
        return;
    }
    const QDir::Filters subdirs = QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks | QDir::Hidden;
    for (const QString& name : QDir(dir).entryList(subdirs, QDir::Name))
        collectSeries(dir + u'/' + name, series, unreadable);
}

} // namespace

QStringList columnNames(const QStringList& dirs)
{
    QStringList names;
    for (const QString& dir : dirs)
        names << QFileInfo(QDir::cleanPath(dir)).fileName();
    if (QSet<QString>(names.begin(), names.end()).size() != names.size())
        for (qsizetype i = 0; i < dirs.size(); ++i)
            names[i] = QDir::cleanPath(dirs[i]);
    return names;
}

QStringList seriesUnder(const QString& root, QStringList& unreadable)
{
    QStringList series;
    collectSeries(QDir::cleanPath(root), series, unreadable);
    return series;
}

QString typesOfMarker(const QString& marker)
{
    QStringList names;
    for (const ValueType& t : valueTypes())
        if (markerOf(t.type) == marker)
            names << QString::fromLatin1(t.name);
    if (names.size() < 2)
        return names.join(QString());
    return names.mid(0, names.size() - 1).join(QStringLiteral(", ")) + QStringLiteral(" or ") + names.last();
}

QMetaType::Type representativeType(const QString& marker)
{
    for (const ValueType& t : valueTypes())
        if (markerOf(t.type) == marker)   // variable values show as JSON, which suits strings too
            return Kel::detail::isVariableType(t.type) ? QMetaType::QVariant : t.type;
    return QMetaType::QVariant;
}

void requireSeries(TSFileStorage& storage, QMetaType::Type type)
{
    requireDirectory(storage.dir);
    if (QFileInfo(storage.baseDir).isDir())
        return;
    QStringList held;
    for (const QString& marker : markersIn(storage.dir))
        held << QStringLiteral("%1 (%2/)").arg(typesOfMarker(marker), marker);
    throw NothingFound{QStringLiteral("%1: %2 holds no %3 series%4")
                           .arg(programName(), QDir::cleanPath(storage.dir), valueTypeName(type),
                                held.isEmpty() ? QString()
                                               : QStringLiteral("; it holds %1").arg(held.join(QStringLiteral(", "))))};
}

long long resolveBound(const TimeBound& bound, TSFileStorage& storage)
{
    long long ms = bound.ms;
    switch (bound.anchor) {
    case TimeBound::Exact:
        // The library reads -1, -2 and -3 as now, first and last.
        if (ms >= TSFileStorage::TS_LAST_RECORD && ms <= TSFileStorage::TS_NOW)
            throw UsageError{QStringLiteral("%1: %2 ms is reserved; write now, first or last instead")
                                 .arg(programName()).arg(ms)};
        return ms;
    case TimeBound::Now:
        return ms == 0 ? TSFileStorage::TS_NOW : QDateTime::currentMSecsSinceEpoch() + ms;
    case TimeBound::First:
    case TimeBound::Last: {
        const bool first = bound.anchor == TimeBound::First;
        if (ms == 0)
            return first ? TSFileStorage::TS_FIRST_RECORD : TSFileStorage::TS_LAST_RECORD;
        Interpolate::DataRecord rec;
        if (!(first ? storage.getFirstDataRecord(rec) : storage.getLastDataRecord(rec)))
            throw NothingFound{QStringLiteral("%1: the series has no records").arg(programName())};
        return rec.timestamp + ms;
    }
    }
    return ms;
}

bool instantOf(const TimeBound& bound, TSFileStorage& storage, long long& ms)
{
    Interpolate::DataRecord rec;
    switch (bound.anchor) {
    case TimeBound::Exact:
        ms = bound.ms;
        return true;
    case TimeBound::Now:
        ms = QDateTime::currentMSecsSinceEpoch() + bound.ms;
        return true;
    case TimeBound::First:
        if (!storage.getFirstDataRecord(rec))
            return false;
        break;
    case TimeBound::Last:
        if (!storage.getLastDataRecord(rec))
            return false;
        break;
    }
    ms = rec.timestamp + bound.ms;
    return true;
}

void checkRange(const CommandLine& cl, const TimeBound& from, const TimeBound& to, TSFileStorage& storage)
{
    long long start = 0;
    long long end = 0;
    if (instantOf(from, storage, start) && instantOf(to, storage, end) && start > end)
        cl.fail(QStringLiteral("the range ends before it starts: --from %1 lies after --to %2")
                    .arg(isoTime(start), isoTime(end)));
}

void addRequestOptions(CommandLine& cl, bool withLimit)
{
    cl.option(QStringLiteral("from"), QStringLiteral("TS"));
    cl.option(QStringLiteral("to"), QStringLiteral("TS"));
    cl.option(QStringLiteral("method"), QStringLiteral("M"));
    cl.flag(QStringLiteral("method-as-is"));
    cl.option(QStringLiteral("interval"), QStringLiteral("I"));
    cl.option(QStringLiteral("template"), QStringLiteral("NAME"));
    cl.option(QStringLiteral("offset-min"), QStringLiteral("N"));
    cl.option(QStringLiteral("filters"), QStringLiteral("JSON"));
    cl.flag(QStringLiteral("align"));
    cl.flag(QStringLiteral("label-start"));
    if (withLimit)
        cl.option(QStringLiteral("limit"), QStringLiteral("N"));
}

ReadRequest requestFromOptions(const CommandLine& cl, QMetaType::Type type, bool withLimit)
{
    ReadRequest r;
    r.from = cl.bound(QStringLiteral("from"), TimeBound::First);
    r.to = cl.bound(QStringLiteral("to"), TimeBound::Last);
    const int offset = int(cl.integer(QStringLiteral("offset-min"), 0, -24 * 60, 24 * 60));
    r.param.offsetMinFromUTC = offset;

    // A template first; options given beside it override what it sets.
    if (cl.isSet(QStringLiteral("template"))) {
        r.templateName = cl.value(QStringLiteral("template"));
        if (!templateExists(r.templateName))
            cl.fail(QStringLiteral("no template named '%1' (%2 templates lists them)")
                        .arg(r.templateName, programName()));
        Interpolate::loadTemplateParams(r.templateName, r.param, r.chain, offset);
    }
    if (cl.isSet(QStringLiteral("method")))
        r.param.method = cl.value(QStringLiteral("method"));
    if (cl.isSet(QStringLiteral("interval")))
        r.param.interval = cl.interval(QStringLiteral("interval"));
    if (cl.isSet(QStringLiteral("align")))
        r.param.alignStartEndTimestamp = true;
    if (cl.isSet(QStringLiteral("offset-min")))
        r.param.offsetMinFromUTC = offset;
    if (cl.isSet(QStringLiteral("filters")))
        Interpolate::parseFilterparams(filtersFromOption(cl), r.param);
    r.labelAtStart = cl.isSet(QStringLiteral("label-start"));
    if (withLimit)
        r.limit = int(cl.integer(QStringLiteral("limit"), 0, 0, INT_MAX));
    checkMethod(cl, r, type);
    return r;
}

MethodReading readMethod(const Interpolate::InterpolateParam& param)
{
    std::vector<Interpolate::DataRecord> out;
    int count = 0;
    const Interpolate engine(param, {}, 0, 0, 0, 0, &out, QMetaType::Double, false, count, false);
    return {engine.method, engine.average};
}

QString methodName(Interpolate::InterpolateMethod method)
{
    return Kel::detail::methodName(method);
}

QString differenceKeyword(const QString& method)
{
    return Kel::detail::differenceKeyword(method);
}

bool isPlainRaw(const ReadRequest& request)
{
    return request.param.interval == 0 && request.chain.empty() &&
           differenceKeyword(request.param.method).isEmpty();
}

QString describeRequest(const ReadRequest& r)
{
    QStringList parts;
    if (!r.templateName.isEmpty())
        parts << QStringLiteral("template %1").arg(r.templateName);
    if (r.param.interval == 0) {
        parts << (r.param.method.isEmpty() ? QStringLiteral("raw") : r.param.method);
    } else {
        parts << (r.param.method.isEmpty() ? QStringLiteral("prevNextLinearFill") : r.param.method)
              << describeInterval(r.param.interval);
        if (r.param.alignStartEndTimestamp)
            parts << QStringLiteral("aligned");
    }
    if (!r.chain.empty())
        parts << QStringLiteral("after %1 normalisation steps").arg(r.chain.size());
    if (!r.param.filterParams.empty())
        parts << QStringLiteral("filtered");
    return parts.join(QStringLiteral(", "));
}

} // namespace kelts
