// check: the read-only integrity check an operator runs after a disk
// incident. It lists every directory of a series' tree for entries the
// library would not recognise, then walks the files in the order the
// library's own lookups find them and reads every record with the
// library's record operations: each record must lie inside its file's
// period and after the one before, each file must hold whole records, and
// each variable value must sit inside its side file and decode.

#include "Commands.h"
#include "CommandLine.h"
#include "Series.h"
#include "Terminal.h"
#include "ValueText.h"
#include "StorageNames.h"

#include <QDataStream>
#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <climits>
#include <cstdio>
#include <utility>

namespace kelts {

namespace {

using Kel::Interpolate;
using Kel::TSFileInfo;
using Kel::TSFileStorage;

// Record problems of one kind reported per file before the rest is counted.
constexpr int kShownPerFile = 3;
// A tree whose lookups go round in circles is left after this many files.
constexpr long long kMaxFiles = 10000000;

class Problems {
public:
    void add(const QString& path, const QString& what)
    {
        ++count;
        std::printf("%s: %s\n", qPrintable(QDir::cleanPath(path)), qPrintable(what));
    }
    long long count = 0;
};

// The names of the tree's levels: a 4-digit year, then 2-digit month, day,
// hour and minute.
bool isLevelName(const QString& name, int level, const QStringList& parents)
{
    const int width = level == 0 ? 4 : 2;
    if (name.size() != width)
        return false;
    for (QChar c : name)
        if (c < u'0' || c > u'9')
            return false;
    const int n = name.toInt();
    switch (level) {
    case 0: return true;
    case 1: return n >= 1 && n <= 12;
    case 2: {
        // Year 0 exists for the storage but not for QDate; it is a leap
        // year like 2000.
        const int year = parents.value(0).toInt();
        return n >= 1 && n <= QDate(year == 0 ? 2000 : year, parents.value(1).toInt(), 1).daysInMonth();
    }
    case 3: return n <= 23;
    case 4: return n <= 59;
    default: return false;
    }
}

QString levelExpectation(int level)
{
    static const char* const names[] = {"a 4-digit year", "a month 01 to 12", "a day of the month",
                                        "an hour 00 to 23", "a minute 00 to 59"};
    return level >= 0 && level <= 4 ? QString::fromLatin1(names[level]) : QStringLiteral("nothing this deep");
}

bool hasValidNames(const TSFileInfo& info)
{
    QStringList parts = info.getSubDir().split(u'/', Qt::SkipEmptyParts);
    parts << info.fileName();
    if (parts.size() > 5)
        return false;
    for (int level = 0; level < parts.size(); ++level)
        if (!isLevelName(parts[level], level, parts.mid(0, level)))
            return false;
    return true;
}

class SeriesCheck {
public:
    SeriesCheck(TSFileStorage& storage, Problems& problems)
        : storage(storage), problems(problems), variable(storage.getMarkerForValueType(storage.valueType) == u"V")
    {
    }

    void run()
    {
        listLevel(QString(), 0, {});
        walkFiles();
        checkUnreachedFiles();
    }

    long long files = 0;
    long long records = 0;

private:
    // The directory listing: entries the tree's names do not account for.
    // Files the lookups never reached are named as such, and their records
    // are checked all the same.
    void checkUnreachedFiles()
    {
        QStringList unreached;
        for (const QString& path : std::as_const(listedFiles))
            if (!visited.contains(path))
                unreached << path;
        unreached.sort();
        for (const QString& path : std::as_const(unreached)) {
            problems.add(path, QStringLiteral("not reached by the storage's lookups: an empty directory or "
                                              "a misnamed entry before it hides it from reads"));
            const QString rel = path.mid(QDir(storage.baseDir).absolutePath().size() + 1);
            const TSFileInfo info(QFileInfo(path), rel.left(rel.lastIndexOf(u'/') + 1));
            long long previousLast = LLONG_MIN;
            ++files;
            checkFile(info, info.getBaseTsMs(), previousLast);
        }
    }

    void listLevel(const QString& rel, int level, const QStringList& parents)
    {
        const QDir dir(storage.baseDir + rel);
        const QString why = unlistable(dir.path());
        if (!why.isEmpty()) {
            problems.add(dir.path(), QStringLiteral("cannot be read: %1; its files were not checked").arg(why));
            return;
        }
        const QFileInfoList entries =
            dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
        if (entries.isEmpty() && level > 0)
            problems.add(dir.path(), QStringLiteral("empty directory: the storage's lookups stop here and miss "
                                                    "the files after it"));
        for (const QFileInfo& e : entries)
            listEntry(e, rel, level, parents);
    }

    void listEntry(const QFileInfo& e, const QString& rel, int level, const QStringList& parents)
    {
        const QString name = e.fileName();
        if (isLevelName(name, level, parents)) {
            if (e.isDir() && level < 4)
                listLevel(rel + name + u'/', level + 1, parents + QStringList{name});
            else if (e.isDir())
                problems.add(e.filePath(), QStringLiteral("a minute entry is a directory; minute files are never split"));
            else if (e.isFile())
                listedFiles.insert(e.absoluteFilePath());
            else
                problems.add(e.filePath(), QStringLiteral("neither a file nor a directory"));
            return;
        }
        listOtherEntry(e, level, parents);
    }

    // Side files, leftovers of interrupted work, and strays.
    void listOtherEntry(const QFileInfo& e, int level, const QStringList& parents)
    {
        const QString name = e.fileName();
        auto stemIsLevelName = [&](const QString& suffix) {
            return name.endsWith(suffix) && isLevelName(name.chopped(suffix.size()), level, parents);
        };
        namespace names = Kel::detail::names;
        if (level == 0 && name == QLatin1String(names::kSpareName))
            problems.add(e.filePath(), QStringLiteral("left by an interrupted batch write; the next write "
                                                      "among stored records removes it"));
        else if (stemIsLevelName(names::sideFile(QLatin1String(names::kRewriteSuffix))) ||
                 stemIsLevelName(QLatin1String(names::kRewriteSuffix)))
            problems.add(e.filePath(), QStringLiteral("left by an interrupted rewrite; the next access to the file "
                                                      "finishes or discards it"));
        else if (stemIsLevelName(QLatin1String(names::kSplitSuffix)))
            problems.add(e.filePath(), QStringLiteral("left by an interrupted split of the file"));
        else if (stemIsLevelName(QLatin1String(names::kSideFileSuffix)))
            checkSideFileOwner(e);
        else
            problems.add(e.filePath(), QStringLiteral("stray %1: not %2")
                                           .arg(e.isDir() ? QStringLiteral("directory") : QStringLiteral("file"),
                                                levelExpectation(level)));
    }

    void checkSideFileOwner(const QFileInfo& e)
    {
        if (!QFileInfo(e.path() + u'/' + e.completeBaseName()).isFile())
            problems.add(e.filePath(), QStringLiteral("side file without its storage file"));
        else if (!variable)
            problems.add(e.filePath(), QStringLiteral("side file beside a file of fixed-length values"));
    }

    // The files in the order reads take them.
    void walkFiles()
    {
        long long previousBase = LLONG_MIN;
        long long previousLast = LLONG_MIN;
        for (TSFileInfo info = storage.findFirstFile(); info.found(); info = storage.findNextFile(info)) {
            const QString path = info.absoluteFilePath();
            if (visited.contains(path) || files >= kMaxFiles) {
                problems.add(path, QStringLiteral("the storage's lookups come back to this file; the walk stops"));
                return;
            }
            visited.insert(path);
            if (!hasValidNames(info))
                return;   // reported by the listing; the lookups cannot step on from a name that is no date
            ++files;
            const long long base = info.getBaseTsMs();
            if (base <= previousBase)
                problems.add(path, QStringLiteral("found after a file of a later period"));
            previousBase = base;
            checkFile(info, base, previousLast);
        }
    }

    void checkFile(const TSFileInfo& info, long long base, long long& previousLast)
    {
        const QString path = info.filePath();
        const TSFileInfo::DirDepth depth = info.getDirDepth();
        const long long length = storage.getStoredRecordLength(depth);
        const long long size = info.size();
        if (size % length != 0)
            problems.add(path, QStringLiteral("%1 bytes are not a whole number of %2-byte records: %3 bytes of a "
                                              "record cut short at the end (the next write to the file removes them)")
                                   .arg(size).arg(length).arg(size % length));
        const long long n = size / length;
        if (n == 0) {
            problems.add(path, QStringLiteral("holds no record"));
            return;
        }
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            problems.add(path, QStringLiteral("cannot be opened: %1").arg(file.errorString()));
            return;
        }
        QDataStream stream(&file);
        stream.setVersion(QDataStream::Qt_5_13);
        RecordOrder order{path, base, info.getPeriodEndTsMs(), previousLast};
        if (variable)
            checkVariableRecords(stream, info, n, length, order);
        else
            for (long long i = 0; i < n; ++i)
                order.take(problems, i * length, storage.readCurrDataRecord(stream, base, depth).timestamp);
        order.finish(problems);
        previousLast = order.last;
        records += n;
    }

    // Each record inside its file's period and after the one before; the
    // first after the last record of the file before.
    struct RecordOrder {
        QString path;
        long long base;
        long long periodEnd;
        long long last;
        int outside = 0;
        int backward = 0;

        void take(Problems& problems, long long byte, long long ts)
        {
            if (ts >= periodEnd && ++outside <= kShownPerFile)
                problems.add(path, QStringLiteral("the record at byte %1 (%2) lies after the file's period, "
                                                  "which ends at %3")
                                       .arg(byte).arg(isoTime(ts), isoTime(periodEnd)));
            else if (ts <= last && ++backward <= kShownPerFile)
                problems.add(path, QStringLiteral("the record at byte %1 (%2) does not come after the one before "
                                                  "it (%3)")
                                       .arg(byte).arg(isoTime(ts), isoTime(last)));
            last = ts;
        }

        void finish(Problems& problems) const
        {
            if (outside > kShownPerFile)
                problems.add(path, QStringLiteral("%1 more records lie after the file's period").arg(outside - kShownPerFile));
            if (backward > kShownPerFile)
                problems.add(path, QStringLiteral("%1 more records are out of order").arg(backward - kShownPerFile));
        }
    };

    // Variable values: the 4-byte value field of a record is the position of
    // its serialised QVariant in the side file.
    void checkVariableRecords(QDataStream& stream, const TSFileInfo& info, long long n, long long length,
                              RecordOrder& order)
    {
        const QString sidePath = Kel::detail::names::sideFile(info.filePath());
        QFile side(sidePath);
        if (!side.open(QIODevice::ReadOnly)) {
            problems.add(sidePath, QStringLiteral("side file missing or unreadable: the values of %1 records are lost").arg(n));
            side.close();
        }
        QDataStream values(&side);
        values.setVersion(QDataStream::Qt_5_13);
        int bad = 0;
        for (long long i = 0; i < n; ++i) {
            order.take(problems, i * length, order.base + storage.readCurrTsOffset(stream, info.getDirDepth()));
            qint32 position = 0;
            stream >> position;
            if (!side.isOpen())
                continue;
            const QString trouble = valueTrouble(side, values, position);
            if (!trouble.isEmpty() && ++bad <= kShownPerFile)
                problems.add(sidePath, QStringLiteral("the record at byte %1 of %2: %3")
                                           .arg(i * length).arg(info.fileName(), trouble));
        }
        if (bad > kShownPerFile)
            problems.add(sidePath, QStringLiteral("%1 more records with values that cannot be read").arg(bad - kShownPerFile));
    }

    static QString valueTrouble(QFile& side, QDataStream& values, qint32 position)
    {
        if (position < 0 || position >= side.size())
            return QStringLiteral("position %1 lies outside the side file of %2 bytes").arg(position).arg(side.size());
        side.seek(position);
        values.resetStatus();
        QVariant value;
        try {
            values >> value;
        } catch (...) {   // a damaged length can ask for more memory than there is
            return QStringLiteral("the value at position %1 does not decode").arg(position);
        }
        if (values.status() != QDataStream::Ok)
            return QStringLiteral("the value at position %1 does not decode").arg(position);
        return QString();
    }

    TSFileStorage& storage;
    Problems& problems;
    const bool variable;
    QSet<QString> listedFiles;
    QSet<QString> visited;
};

struct Totals {
    long long series = 0;
    long long companions = 0;
    long long files = 0;
    long long records = 0;
};

void checkStorage(TSFileStorage& storage, Problems& problems, Totals& totals, bool companion)
{
    SeriesCheck check(storage, problems);
    check.run();
    ++(companion ? totals.companions : totals.series);
    totals.files += check.files;
    totals.records += check.records;
}

// A series and its companions: "P" keeps long values under <marker>P/L/,
// "O" variable values under <marker>O/V/.
void checkSeries(const QString& dir, const QString& marker, QMetaType::Type type, Problems& problems, Totals& totals)
{
    auto storage = makeStorage(dir, type);
    checkStorage(*storage, problems, totals, false);
    for (const Kel::detail::names::Companion& c : Kel::detail::names::kCompanions) {
        const QString companionDir = dir + u'/' + marker + QLatin1String(c.marker);
        if (!QFileInfo(companionDir).isDir())
            continue;
        const QString why = unlistable(companionDir);
        if (!why.isEmpty()) {
            problems.add(companionDir, QStringLiteral("cannot be read: %1; the companion was not checked").arg(why));
            continue;
        }
        auto companion = makeStorage(companionDir, c.type);
        const QString inner = companion->getMarkerForValueType(c.type);
        for (const QString& name : QDir(companionDir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot))
            if (name != inner)
                problems.add(companionDir + u'/' + name, QStringLiteral("stray entry in a companion directory"));
        checkStorage(*companion, problems, totals, true);
    }
}

// Entries of DIR that belong to no series.
void checkTopLevel(const QString& dir, const QStringList& markers, Problems& problems)
{
    QSet<QString> known;
    for (const QString& m : markers) {
        known << m;
        for (const Kel::detail::names::Companion& c : Kel::detail::names::kCompanions)
            known << m + QLatin1String(c.marker);
    }
    for (const QFileInfo& e : QDir(dir).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot))
        if (!known.contains(e.fileName()))
            problems.add(e.filePath(), QStringLiteral("not part of a series: not a value type's directory "
                                                      "(B, W, I, L, D, F, V) or a companion of one"));
}

int check(const QStringList& args)
{
    CommandLine cl(checkCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString dir = QDir::cleanPath(cl.positional().at(0));
    requireDirectory(dir);
    const std::optional<QMetaType::Type> type = cl.optionalValueType();

    Problems problems;
    Totals totals;
    if (type) {
        auto storage = makeStorage(dir, *type);
        requireSeries(*storage, *type);
        checkSeries(dir, storage->getMarkerForValueType(*type), *type, problems, totals);
    } else {
        QStringList unreadable;
        const QStringList series = seriesUnder(dir, unreadable);
        for (const QString& line : unreadable) {
            ++problems.count;
            std::printf("%s\n", qPrintable(line));
        }
        if (series.isEmpty() && unreadable.isEmpty())
            throw NothingFound{QStringLiteral("%1: no series under %2").arg(programName(), dir)};
        for (const QString& one : series) {
            const QStringList markers = markersIn(one);
            checkTopLevel(one, markers, problems);
            for (const QString& marker : markers)
                checkSeries(one, marker, representativeType(marker), problems, totals);
        }
    }
    const QString found = problems.count == 0 ? QStringLiteral("no problems")
                        : problems.count == 1 ? QStringLiteral("1 problem")
                                              : QStringLiteral("%1 problems").arg(grouped(problems.count));
    const QString companions = totals.companions == 0 ? QString()
                               : QStringLiteral(" and %1 companion%2").arg(totals.companions).arg(totals.companions == 1 ? "" : "s");
    std::printf("checked %s series%s, %s files, %s records: %s\n", qPrintable(grouped(totals.series)),
                qPrintable(companions), qPrintable(grouped(totals.files)), qPrintable(grouped(totals.records)),
                qPrintable(found));
    return problems.count == 0 ? EXIT_DONE : EXIT_NOTHING;
}

} // namespace

const Command checkCommand = {
    "check", "check a series tree for damage (read-only)",
    R"(Usage: kelts check DIR [--type T]

Checks the series under DIR without changing anything, as after a disk
incident (DIR itself when it is a series, else every series below it): entry names and depths of the date tree, stray and leftover
files, every file a whole number of records, every record inside its file's
period and after the one before, and every variable value inside its side
file and readable. The companions "P" and "O" are checked too.

Prints one line per problem, "path: what is wrong", then a summary; exits
with 1 when it found a problem, a directory it could not read included.

  --type T    check only the series of this type

Example:
  kelts check /data/ts/boiler1
)",
    check};

} // namespace kelts
