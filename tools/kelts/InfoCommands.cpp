// The commands that describe rather than read: info (what a person asks
// first about a series) and templates (the named requests available).

#include "Commands.h"
#include "FileTally.h"
#include "CommandLine.h"
#include "Csv.h"
#include "Series.h"
#include "Terminal.h"
#include "ValueText.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>

#include <climits>
#include <cstdio>
#include <optional>

namespace kelts {

namespace {

using Kel::Interpolate;
using Kel::TSFileInfo;
using Kel::TSFileStorage;

void printField(const char* name, const QString& text)
{
    std::printf("    %-12s %s\n", name, qPrintable(text));
}

QString describeRecord(TSFileStorage& storage, bool first, QMetaType::Type type, bool withValue)
{
    Interpolate::DataRecord rec;
    if (!(first ? storage.getFirstDataRecord(rec) : storage.getLastDataRecord(rec)))
        return QStringLiteral("none");
    if (!withValue)
        return isoTime(rec.timestamp);
    return QStringLiteral("%1  %2").arg(isoTime(rec.timestamp), formatValue(rec.value, type));
}

// The companions of a series: "P" logs back-filled timestamps, "O" the
// values that overwrites replaced; each is counted by the library.
QString describeCompanions(TSFileStorage& storage, const QString& marker)
{
    QStringList parts;
    const long long p = storage.getCount({}, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD,
                                         false, true, false);
    const long long o = storage.getCount({}, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD,
                                         false, false, true);
    if (QFileInfo(storage.dir + marker + u'P').isDir())
        parts << QStringLiteral("P (%1P/): %2 back-filled timestamp%3").arg(marker, grouped(p), p == 1 ? "" : "s");
    if (QFileInfo(storage.dir + marker + u'O').isDir())
        parts << QStringLiteral("O (%1O/): %2 write%3 that replaced values").arg(marker, grouped(o), o == 1 ? "" : "s");
    return parts.isEmpty() ? QStringLiteral("none") : parts.join(QStringLiteral("; "));
}

void describeSeries(const QString& dir, const QString& marker, std::optional<QMetaType::Type> givenType)
{
    const QMetaType::Type type = givenType ? *givenType : representativeType(marker);
    // Without --type, values whose marker several types share are left out
    // rather than shown as the wrong type.
    const bool showValues = givenType || !typesOfMarker(marker).contains(QLatin1String(" or ")) ||
                            marker == QLatin1String("V");
    auto storage = makeStorage(dir, type);
    std::printf("  %s (%s/)\n", qPrintable(givenType ? valueTypeName(type) : typesOfMarker(marker)),
                qPrintable(marker));
    const long long records = storage->getCount({}, {}, TSFileStorage::TS_FIRST_RECORD,
                                                TSFileStorage::TS_LAST_RECORD, true, false, false);
    const FileTally files = tallyFiles(*storage);
    printField("records", grouped(records));
    printField("first", describeRecord(*storage, true, type, showValues));
    printField("last", describeRecord(*storage, false, type, showValues));
    printField("files", describeFiles(files));
    printField("on disk", describeBytes(files.bytes));
    printField("companions", describeCompanions(*storage, marker));
    if (!showValues)
        printField("values", QStringLiteral("give --type to see them"));
}

// The series under DIR, DIR itself included; directories that cannot be
// listed are named on stderr. Throws NothingFound when there is none.
QStringList seriesFound(const QString& dir)
{
    QStringList unreadable;
    const QStringList series = seriesUnder(dir, unreadable);
    for (const QString& line : unreadable)
        printErrorLine(QStringLiteral("%1: %2").arg(programName(), line));
    if (series.isEmpty())
        throw NothingFound{QStringLiteral("%1: %2 holds no series").arg(programName(), dir)};
    return series;
}

int info(const QStringList& args)
{
    CommandLine cl(infoCommand);
    cl.option(QStringLiteral("type"), QStringLiteral("T"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString dir = cl.positional().at(0);
    requireDirectory(dir);
    const std::optional<QMetaType::Type> type = cl.optionalValueType();
    QStringList markers;
    if (type) {
        auto storage = makeStorage(dir, *type);
        requireSeries(*storage, *type);
        markers << storage->getMarkerForValueType(*type);
        std::printf("%s\n", qPrintable(QDir::cleanPath(QFileInfo(dir).absoluteFilePath())));
        describeSeries(dir, markers.first(), type);
        return EXIT_DONE;
    }
    // Without --type, DIR may be a plant's root: every series below it.
    const QStringList series = seriesFound(dir);
    for (const QString& one : series) {
        std::printf("%s\n", qPrintable(QDir::cleanPath(QFileInfo(one).absoluteFilePath())));
        for (const QString& marker : markersIn(one))
            describeSeries(one, marker, type);
    }
    return EXIT_DONE;
}

// One CSV row per series and value directory under DIR:
// series,types,records,first,last.
int list(const QStringList& args)
{
    CommandLine cl(lsCommand);
    cl.option(QStringLiteral("time"), QStringLiteral("ms|iso"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    const QString root = QDir::cleanPath(cl.positional().at(0));
    requireDirectory(root);
    const TimeFormat format = cl.timeFormat();
    const QStringList series = seriesFound(root);
    CsvWriter out;
    out.row({QStringLiteral("series"), QStringLiteral("types"), QStringLiteral("records"), QStringLiteral("first"),
             QStringLiteral("last")});
    for (const QString& one : series) {
        const QString name = one == root ? QStringLiteral(".") : one.mid(root.size() + 1);
        for (const QString& marker : markersIn(one)) {
            auto storage = makeStorage(one, representativeType(marker));
            const long long records = storage->getCount({}, {}, TSFileStorage::TS_FIRST_RECORD,
                                                        TSFileStorage::TS_LAST_RECORD, true, false, false);
            Interpolate::DataRecord first, last;
            const bool any = storage->getFirstDataRecord(first) && storage->getLastDataRecord(last);
            out.row({csvField(name), csvField(typesOfMarker(marker)), QString::number(records),
                     any ? formatTime(first.timestamp, format) : QString(),
                     any ? formatTime(last.timestamp, format) : QString()});
        }
    }
    return EXIT_DONE;
}

int templates(const QStringList& args)
{
    CommandLine cl(templatesCommand);
    if (!cl.parse(args, 0, 0))
        return EXIT_DONE;
    const QJsonDocument doc = QJsonDocument::fromJson(Interpolate::getTemplates().toUtf8());
    std::fputs(doc.toJson(QJsonDocument::Indented).constData(), stdout);
    if (doc.array().isEmpty())
        printErrorLine(QStringLiteral(
            "%1: no templates found. They are read from $VANTIK_INSTALL_PATH/cfg/dms/"
            "InterpolateTemplates.json and InterpolateTemplates_User.json, "
            "$VANTIK_INSTALL_PATH/proj/_ProcessManager/cfg/InterpolateTemplates_User.json and "
            "$VANTIK_CURRENT_PROJECT_LOCATION/cfg/InterpolateTemplates_User.json (both variables "
            "end with /)").arg(programName()));
    return EXIT_DONE;
}

} // namespace

const Command infoCommand = {
    "info", "describe the series under a directory",
    R"(Usage: kelts info DIR [--type T]

Describes the series under DIR (DIR itself, or without --type every series
below it): for each value type present, the number of
records, the first and last record, the files by period (year, month, day,
hour, minute), the bytes on disk, and the companions "P" (back-filled
timestamps) and "O" (replaced values) when present.

  --type T    describe only the series of this type, with its values
              (bool, char and uchar share one directory, as do short and
              ushort, int and uint, long and ulong, string and variant)

Example:
  kelts info /data/ts/boiler1
)",
    info};

const Command lsCommand = {
    "ls", "list every series under a directory (CSV)",
    R"(Usage: kelts ls DIR [--time ms|iso]

Lists the series under DIR (DIR itself when it is one, else every series
below it) as CSV: series (the path below DIR, "." for DIR itself), the
value types its directory holds, records, first and last time. A series
that holds several value directories has a row for each.

Example:
  kelts ls /data/ts
)",
    list};

const Command templatesCommand = {
    "templates", "print the named read requests (JSON)",
    R"(Usage: kelts templates

Prints the templates of read --template as one JSON list, merged from the
installation's and the project's template files:
  $VANTIK_INSTALL_PATH/cfg/dms/InterpolateTemplates.json
  $VANTIK_INSTALL_PATH/cfg/dms/InterpolateTemplates_User.json
  $VANTIK_INSTALL_PATH/proj/_ProcessManager/cfg/InterpolateTemplates_User.json
  $VANTIK_CURRENT_PROJECT_LOCATION/cfg/InterpolateTemplates_User.json
Later files override the keys that earlier ones set for the same name.
)",
    templates};

} // namespace kelts
