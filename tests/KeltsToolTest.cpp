// The kelts tool driven as an operator drives it: a separate process on
// scratch directories, checked by its output and exit status, and against
// the storage library where the two must agree.

#include "EngineHarness.h"
#include "KeltsProcess.h"
#include "StorageFixture.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QXmlStreamReader>

namespace {

using Kel::Interpolate;
using Kel::TSFileStorage;
using namespace Kel::test;

TEST_F(KeltsTool, EveryValueTypeRoundTripsThroughWriteAndRead)
{
    const struct {
        const char* type;
        QStringList values;  // CSV fields, printed back exactly
    } cases[] = {
        {"bool", {"true", "false"}},
        {"char", {"-128", "127"}},
        {"uchar", {"0", "255"}},
        {"short", {"-32768", "32767"}},
        {"ushort", {"0", "65535"}},
        {"int", {"-2147483648", "2147483647"}},
        {"uint", {"0", "4294967295"}},
        {"long", {"-9223372036854775808", "9223372036854775807"}},
        {"ulong", {"0", "18446744073709551615"}},
        {"float", {"0.1", "3.4028235e+38", "-1e-45", "nan", "-inf"}},
        {"double", {"0.30000000000000004", "-2.2250738585072014e-308", "1e+300", "inf"}},
        // Quoted exactly when the text would not read back otherwise.
        {"string", {"plain", "\"with, comma\"", "\"with \"\"quotes\"\"\"", "\"two\nlines\"", "", "\" padded \"",
                    "\"cr\r\"", "\"\"\"\"", "Grüße ✓"}},
        {"variant", {"42", "1.5", "\"\"\"text\"\"\"", "\"{\"\"a\"\":[true,null]}\"", "null"}},
    };
    for (const auto& c : cases) {
        QString csv = QStringLiteral("timestamp,value\n");
        for (int i = 0; i < c.values.size(); ++i)
            csv += QStringLiteral("%1,%2\n").arg(1715072400000LL + i * 1000).arg(c.values[i]);
        const QString d = dir(QLatin1String(c.type));
        write(d, c.type, csv.toUtf8());
        const Outcome r = kelts({"read", d, "--type", QLatin1String(c.type), "--time", "ms"});
        EXPECT_EQ(r.status, 0) << c.type;
        EXPECT_EQ(r.out, csv) << c.type;
    }
}

TEST_F(KeltsTool, MalformedInputIsRefusedWholeWithLineNumbers)
{
    write(dir(), "double", "2024-05-07T09:00:00Z,1\n2024-05-07T09:00:10Z,2\n");
    const QStringList before = readLines(dir(), "double");

    const QByteArray bad = "timestamp,value\n"
                           "2024-05-07T09:00:20Z,3\n"
                           "2024-05-07T09:00:30Z,abc\n"
                           "\n"
                           "2024-05-07T09:00:40,4\n"
                           "2024-02-30T00:00:00Z,5\n"
                           "2024-05-07T09:00:50Z,6,7\n"
                           "2024-05-07T09:01:00Z,\n";
    const Outcome r = kelts({"write", dir(), "--type", "double"}, bad);
    EXPECT_EQ(r.status, 2);
    for (const char* expected : {"line 3: 'abc' is not a number", "line 5: '2024-05-07T09:00:40' has no time zone",
                                 "line 6: '2024-02-30T00:00:00Z' names no calendar date", "line 7: 3 fields",
                                 "line 8: '' is not a number", "5 bad lines; nothing was written"})
        EXPECT_TRUE(r.err.contains(QLatin1String(expected))) << expected << "\n" << qPrintable(r.err);
    EXPECT_EQ(readLines(dir(), "double"), before);

    // A value out of its type's range, a quote never closed: the values
    // are read as the type says, and a new series is not even begun.
    EXPECT_EQ(kelts({"write", dir("c"), "--type", "char"}, "1,128\n").status, 2);
    EXPECT_EQ(kelts({"write", dir("c"), "--type", "int"}, "1,\"open\n").status, 2);
    EXPECT_FALSE(QFileInfo::exists(dir("c")));
}

TEST_F(KeltsTool, ExitStatusTellsDoneNothingFoundAndBadUsage)
{
    write(dir(), "double", "2024-05-07T09:00:00Z,1\n");
    struct Case {
        QStringList args;
        int status;
    };
    const Case cases[] = {
        {{"--help"}, 0},
        {{"read", "--help"}, 0},
        {{"last", dir(), "--type", "double"}, 0},
        {{"find", dir(), "--type", "double", "--at", "2024-05-07T09:00:00.000Z"}, 0},
        {{"find", dir(), "--type", "double", "--at", "2024-05-07T09:00:01Z"}, 1},
        {{"prev", dir(), "--type", "double", "--at", "2024-05-07T09:00:00Z"}, 1},
        {{"last", dir(), "--type", "int"}, 1},
        {{}, 2},
        {{"frobnicate"}, 2},
        {{"read", dir(), "--type", "double", "--bogus"}, 2},
        {{"read", dir()}, 0},   // a double series only: no --type needed
        {{"read", dir(), "--type", "decimal"}, 2},
        {{"read", dir("missing"), "--type", "double"}, 2},
        {{"read", dir(), "--type", "double", "--from", "2024-05-08", "--to", "2024-05-07"}, 2},
        {{"read", dir(), "--type", "double", "--from", "yesterday"}, 2},
        {{"read", dir(), "--type", "double", "--method", "meanA"}, 2},
        {{"read", dir(), "--type", "double", "--interval", "90 minutes"}, 2},
        {{"read", dir(), "--type", "double", "--filters", "[{\"weekdays\":[1]}]"}, 2},
        {{"read", dir(), "--type", "string", "--interval", "1h"}, 2},
        {{"delete", dir(), "--type", "double", "--from", "first"}, 2},
        {{"delete", dir(), "--type", "double", "--from", "first", "--to", "last", "--marker", "X"}, 2},
        {{"plot", dir(), "--type", "double"}, 2},
        {{"info", dir("missing")}, 2},
        {{"read", dir(), "--type", "double", "-q", "-v"}, 2},
    };
    for (const Case& c : cases) {
        const Outcome r = kelts(c.args);
        EXPECT_EQ(r.status, c.status) << qPrintable(c.args.join(u' ')) << "\n" << qPrintable(r.err);
        EXPECT_TRUE(c.status == 0 || !r.err.trimmed().isEmpty()) << qPrintable(c.args.join(u' '));
    }
}

TEST_F(KeltsTool, CondensedReadsGiveWhatTheLibraryGives)
{
    QByteArray csv;
    for (int i = 0; i < 4 * 3600; i += 7)
        csv += QStringLiteral("%1,%2\n").arg(1715040000000LL + i * 1000LL).arg(20.0 + (i % 500) / 100.0).toUtf8();
    write(dir(), "double", csv);

    TSFileStorage series(dir(), QMetaType::Double, 1 << 22);
    const auto values = readAll(series, request("meanA", 3600, true));
    ASSERT_EQ(values.size(), 4u);
    const QStringList got = readLines(dir(), "double", {"--method", "meanA", "--interval", "1h", "--align"});
    ASSERT_EQ(got.size(), 5);
    // The library gives the interval that reached a limit once more; the
    // tool prints at most the values asked for.
    EXPECT_EQ(readLines(dir(), "double", {"--method", "meanA", "--interval", "1h", "--align", "--limit", "2"}),
              got.mid(0, 3));
    for (int i = 1; i < got.size(); ++i) {
        EXPECT_EQ(got[i].section(u',', 0, 0).toLongLong(), values[i - 1].timestamp);
        // The shortest text of the same double.
        EXPECT_EQ(got[i].section(u',', 1).toDouble(), values[i - 1].value.toDouble());
    }

    // The same request from a template, and with a filter that keeps nothing.
    QTemporaryDir install;
    writeBytes(install.path() + "/cfg/dms/InterpolateTemplates.json",
               R"([{"name": "Hourly", "interpolateParam": {"method": "meanA", "interval": 3600,
                    "alignStartEndTimestamp": true}}])");
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("VANTIK_INSTALL_PATH", install.path() + u'/');
    EXPECT_EQ(lines(kelts({"read", dir(), "--type", "double", "--time", "ms", "--template", "Hourly"}, {}, env).out),
              got);
    EXPECT_TRUE(kelts({"templates"}, {}, env).out.contains("\"Hourly\""));
    EXPECT_EQ(kelts({"read", dir(), "--type", "double", "--template", "Daily"}, {}, env).status, 2);
    EXPECT_EQ(readLines(dir(), "double", {"--interval", "1h", "--method", "meanA", "--filters",
                                          R"({"valueCompare": "gt", "value": 1000})"}),
              QStringList{"timestamp,value"});
    EXPECT_EQ(kelts({"count", dir(), "--type", "double", "--method", "meanA", "--interval", "1h", "--align"}).out,
              "4\n");
}

TEST_F(KeltsTool, LongWritesAreSortedTheLaterOfTwoLinesWinsAndReadsComeWhole)
{
    // Backwards, as a spreadsheet saves it, and more records than one batch
    // of a write or one piece of a raw read; one time is given again last.
    const int n = 250001;
    QByteArray csv = "\xEF\xBB\xBFtimestamp,value\r\n";
    for (int i = n - 1; i >= 0; --i)
        csv += QByteArray::number(1715040000000LL + i * 250LL) + ',' + QByteArray::number(i) + "\r\n";
    csv += QByteArray::number(1715040000000LL + 50000 * 250LL) + ",-1\r\n";
    write(dir(), "int", csv);
    const QStringList all = readLines(dir(), "int");
    ASSERT_EQ(all.size(), n + 1);
    for (int i = 1; i <= n; ++i)
        ASSERT_EQ(all[i].section(u',', 1).toInt(), i - 1 == 50000 ? -1 : i - 1) << i;
    EXPECT_EQ(readLines(dir(), "int", {"--limit", "150000"}).size(), 150001);
    EXPECT_EQ(kelts({"count", dir(), "--type", "int"}).out, QStringLiteral("%1\n").arg(n));
}

TEST_F(KeltsTool, AnImportIsCheckedWholeBeforeAWriteWhetherItComesFromAPipeOrAFile)
{
    // Far more than one piece of input (1 MiB): a bad line at the end stops
    // all of it, from a pipe as from a file.
    QByteArray csv;
    for (int i = 0; i < 120000; ++i)
        csv += QByteArray::number(1715040000000LL + i * 1000LL) + ',' + QByteArray::number(i) + '\n';
    QFile file(dir("input.csv"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(csv + "1715040000000,oops\n");
    file.close();
    const Outcome piped = kelts({"write", dir(), "--type", "int"}, csv + "1715040000000,oops\n");
    EXPECT_EQ(piped.status, 2);
    EXPECT_TRUE(piped.err.contains("line 120001: 'oops' is not a whole number")) << qPrintable(piped.err);
    EXPECT_FALSE(QFileInfo::exists(dir()));
    QProcess fromFile;
    fromFile.setStandardInputFile(file.fileName());
    fromFile.start(QStringLiteral(KELTS_BINARY), {"write", dir(), "--type", "int"});
    ASSERT_TRUE(fromFile.waitForFinished(60000));
    EXPECT_EQ(fromFile.exitCode(), 2);
    EXPECT_FALSE(QFileInfo::exists(dir()));

    // Text values with line breaks inside quotes, across the pieces.
    QByteArray text;
    QStringList expected{"timestamp,value"};
    for (int i = 0; i < 40000; ++i) {
        const QByteArray value = "\"line " + QByteArray::number(i) + "\nand \"\"more\"\"\"";
        text += QByteArray::number(1715040000000LL + i * 1000LL) + ',' + value + '\n';
        expected << QString::number(1715040000000LL + i * 1000LL) + u',' + QString::fromUtf8(value);
    }
    write(dir("text"), "string", text);
    const Outcome back = kelts({"read", dir("text"), "--type", "string", "--time", "ms"});
    EXPECT_EQ(back.out.split(u'\n', Qt::SkipEmptyParts).size(), 1 + 2 * 40000);
    EXPECT_TRUE(back.out.startsWith(expected.mid(0, 3).join(u'\n'))) << qPrintable(back.out.left(200));
    EXPECT_TRUE(back.out.endsWith(expected.last() + u'\n'));
}

TEST_F(KeltsTool, LookupsCountsAndDeletesAgreeWithTheLibrary)
{
    writeThreeDays(dir());
    auto one = [&](const QStringList& args) { return kelts(QStringList(args) << "--type" << "int").out.trimmed(); };
    EXPECT_EQ(one({"first", dir()}), "2024-05-06T10:00:00.000Z,10");
    EXPECT_EQ(one({"last", dir(), "--time", "ms"}), "1715187600000,17");
    EXPECT_EQ(one({"find", dir(), "--at", "2024-05-07T12:00:00Z"}), "2024-05-07T12:00:00.000Z,12");
    EXPECT_EQ(one({"prev", dir(), "--at", "2024-05-07T12:00:00Z"}), "2024-05-07T11:00:00.000Z,11");
    // Before the first record of a day file: the record before lies in the
    // file of the day before.
    EXPECT_EQ(one({"prev", dir(), "--at", "2024-05-07T09:00:00Z"}), "2024-05-06T17:00:00.000Z,17");
    EXPECT_EQ(one({"prev", dir(), "--at", "2024-05-07T10:00:00Z"}), "2024-05-06T17:00:00.000Z,17");

    TSFileStorage series(dir(), QMetaType::Int, 64);
    const QStringList range{"--type", "int", "--from", "2024-05-07T10:00:00Z", "--to", "2024-05-07T15:00:00Z"};
    EXPECT_EQ(kelts({"count", dir(), "--type", "int"}).out, "24\n");
    EXPECT_EQ(kelts(QStringList{"count", dir()} + range).out,
              QStringLiteral("%1\n").arg(series.getCount({}, {}, ms("2024-05-07T10:00:00Z"),
                                                         ms("2024-05-07T15:00:00Z"), true, false, false)));

    const Outcome del = kelts(QStringList{"delete", dir()} + range);
    EXPECT_EQ(del.status, 0) << qPrintable(del.err);
    EXPECT_EQ(del.out, "6 records deleted\n");
    EXPECT_EQ(kelts({"count", dir(), "--type", "int"}).out, "18\n");
    const auto left = readAll(series);
    ASSERT_EQ(left.size(), 18u);
    const QStringList printed = readLines(dir(), "int");
    ASSERT_EQ(printed.size(), int(left.size()) + 1);
    for (std::size_t i = 0; i < left.size(); ++i)
        EXPECT_EQ(printed[int(i) + 1], QStringLiteral("%1,%2").arg(left[i].timestamp).arg(left[i].value.toInt()));
    EXPECT_EQ(kelts(QStringList{"delete", dir()} + range).out, "0 records deleted\n");
    // Bounds relative to the series: 2024-05-07T10:00:00Z to 17:00, the
    // hours the delete left on that day.
    EXPECT_EQ(kelts({"count", dir(), "--type", "int", "--from", "first+1d", "--to", "last-24h"}).out, "2\n");
}

TEST_F(KeltsTool, BackfillAndOverwrittenValuesAreKeptShownAndDeletedApart)
{
    write(dir(), "double", "2024-05-07T09:00:00Z,1\n2024-05-07T09:00:10Z,2\n2024-05-07T09:00:20Z,3\n");
    const Outcome w = kelts({"write", dir(), "--type", "double", "--backfill", "--overwritten"},
                        "2024-05-07T09:00:05Z,1.5\n2024-05-07T09:00:10Z,20\n");
    EXPECT_EQ(w.status, 0);
    EXPECT_TRUE(w.err.contains("overwritten")) << qPrintable(w.err);   // the library's warning, in words

    const QStringList out = lines(kelts({"read", dir(), "--type", "double", "--with-backfill", "--with-overwritten"}).out);
    const int backfilled = int(out.indexOf("backfilled_timestamp,value"));
    const int overwritten = int(out.indexOf("written_at,timestamp,replaced_value"));
    ASSERT_GT(backfilled, 0);
    ASSERT_GT(overwritten, backfilled);
    EXPECT_EQ(out.mid(backfilled + 1, overwritten - backfilled - 1),
              (QStringList{"2024-05-07T09:00:05.000Z,1.5", "2024-05-07T09:00:10.000Z,20"}));
    ASSERT_EQ(out.size(), overwritten + 2);
    EXPECT_TRUE(out.last().endsWith(",2024-05-07T09:00:10.000Z,2")) << qPrintable(out.last());

    EXPECT_EQ(kelts({"count", dir(), "--type", "double"}).out, "4\n");
    EXPECT_EQ(kelts({"count", dir(), "--type", "double", "--backfill", "--overwritten"}).out, "7\n");
    const QString info = kelts({"info", dir()}).out;
    EXPECT_TRUE(info.contains("2 back-filled timestamps")) << qPrintable(info);
    EXPECT_TRUE(info.contains("1 write that replaced values")) << qPrintable(info);
    EXPECT_EQ(kelts({"check", dir()}).status, 0);

    // A companion's records go on their own, and the series stays.
    const QStringList marker{"delete", dir(), "--type", "double", "--from", "first", "--to", "last", "--marker"};
    EXPECT_EQ(kelts(marker + QStringList{"P"}).out, "2 records deleted\n");
    EXPECT_FALSE(QFileInfo::exists(dir() + "/DP"));
    EXPECT_EQ(kelts(marker + QStringList{"O"}).out, "1 record deleted\n");
    EXPECT_EQ(kelts({"count", dir(), "--type", "double", "--backfill", "--overwritten"}).out, "4\n");
}

TEST_F(KeltsTool, InfoDescribesEachSeriesAndCheckFindsDamageChangingNothing)
{
    writeThreeDays(dir());
    write(dir(), "double", "2024-05-07T09:00:00Z,21.5\n");
    write(dir(), "string", "2024-05-07T09:00:00Z,a\n2024-05-07T09:00:01Z,b\n");
    const Outcome info = kelts({"info", dir()});
    EXPECT_EQ(info.status, 0);
    for (const char* expected : {"int or uint (I/)", "records      24", "first        2024-05-06T10:00:00.000Z",
                                 "3 day files", "double (D/)", "2024-05-07T09:00:00.000Z  21.5", "companions   none"})
        EXPECT_TRUE(info.out.contains(QLatin1String(expected))) << expected << "\n" << qPrintable(info.out);
    EXPECT_TRUE(kelts({"info", dir(), "--type", "int"}).out.contains("2024-05-08T17:00:00.000Z  17"));
    const Outcome clean = kelts({"check", dir()});
    EXPECT_EQ(clean.status, 0) << qPrintable(clean.out);
    EXPECT_TRUE(clean.out.contains("no problems"));

    const QString day6 = dir() + "/I/2024/05/06", day8 = dir() + "/I/2024/05/08", year = dir() + "/V/2024";
    QFile(day6).resize(QFileInfo(day6).size() - 3);   // an append cut short
    auto patch = [](const QString& path, qint64 at, const QByteArray& bytes) {
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::ReadWrite));
        f.seek(at);
        f.write(bytes);
    };
    patch(day8, 0, QByteArray::fromHex("FFFFFFFF"));        // the first record weeks after the day's end
    patch(year, 5 + 9, QByteArray::fromHex("0001869F"));    // the second value's position far outside
    QDir().mkpath(dir() + "/I/2024/05/01");                 // an empty directory hides every file after it
    QFile(dir() + "/I/2024/05/notes.txt").open(QIODevice::WriteOnly);

    const Outcome damaged = kelts({"check", dir()});
    EXPECT_EQ(damaged.status, 1);
    for (const QString& expected :
         {day6 + ": 61 bytes are not a whole number of 8-byte records",
          day8 + ": the record at byte 0 (2024-06-26T17:02:47.295Z) lies after the file's period",
          year + ".var: the record at byte 9 of 2024: position 99999 lies outside the side file",
          dir() + "/I/2024/05/01: empty directory",
          dir() + "/I/2024/05/notes.txt: stray file",
          day6 + ": not reached by the storage's lookups"})
        EXPECT_TRUE(damaged.out.contains(expected)) << qPrintable(expected) << "\n" << qPrintable(damaged.out);
    EXPECT_EQ(QFileInfo(day6).size(), 61);   // read-only: the cut record is still there
    EXPECT_EQ(kelts({"check", dir(), "--type", "string"}).status, 1);
    EXPECT_EQ(kelts({"check", dir(), "--type", "double"}).status, 0);
}

TEST_F(KeltsTool, PlotWritesAWellFormedChart)
{
    QByteArray csv;
    for (int i = 0; i < 3 * 3600; i += 10)
        csv += QStringLiteral("%1,%2\n").arg(1715040000000LL + i * 1000LL).arg(i % 600).toUtf8();
    write(dir(), "double", csv);
    auto elements = [](const QString& path) {
        QFile f(path);
        EXPECT_TRUE(f.open(QIODevice::ReadOnly));
        QXmlStreamReader xml(&f);
        QStringList names;
        while (!xml.atEnd())
            if (xml.readNext() == QXmlStreamReader::StartElement)
                names << xml.name().toString();
        EXPECT_FALSE(xml.hasError()) << qPrintable(xml.errorString());
        return names;
    };
    // Raw values as a line, extremes as a band, means with their band.
    const std::pair<QStringList, QStringList> charts[] = {
        {{}, {"polyline"}},
        {{"--method", "minMax", "--interval", "15m"}, {"polygon"}},
        {{"--method", "meanA", "--interval", "15m", "--band"}, {"polygon", "polyline"}},
    };
    for (const auto& [options, shapes] : charts) {
        const QString svg = tmp.path() + "/chart.svg";
        EXPECT_EQ(kelts(QStringList{"plot", dir(), "--type", "double", "--out", svg} + options).status, 0);
        const QStringList found = elements(svg);
        for (const QString& shape : shapes)
            EXPECT_TRUE(found.contains(shape)) << qPrintable(options.join(u' ')) << " " << qPrintable(shape);
    }
    EXPECT_EQ(kelts({"plot", dir(), "--type", "double", "--from", "2030-01-01", "--to", "2030-01-02", "--out",
                     tmp.path() + "/none.svg"}).status, 1);
    EXPECT_FALSE(QFileInfo::exists(tmp.path() + "/none.svg"));
}

TEST_F(KeltsTool, DemoWritesReadsAndDraws)
{
    const Outcome r = kelts({"demo", dir("demo"), "--days", "2"});
    ASSERT_EQ(r.status, 0) << qPrintable(r.err);
    for (const char* expected : {"2. Writing", "172,800", "Hourly mean temperature", "Daily consumption",
                                 "temperature.svg", "consumption.svg"})
        EXPECT_TRUE(r.out.contains(QLatin1String(expected))) << expected;
    EXPECT_TRUE(r.err.isEmpty()) << qPrintable(r.err);   // no progress lines when stderr is no terminal
    EXPECT_TRUE(QFileInfo::exists(dir("demo") + "/temperature.svg"));
    EXPECT_EQ(kelts({"check", dir("demo") + "/meter"}).status, 0);
    EXPECT_EQ(kelts({"demo", dir("demo")}).status, 2);   // not an empty directory
}

TEST_F(KeltsTool, TheLibrarysMessagesAreWordedAndAFloodIsCutShort)
{
    QByteArray csv;
    for (int i = 0; i < 10; ++i)
        csv += QStringLiteral("%1,%2\n").arg(1715040000000LL + i * 1000LL).arg(i).toUtf8();
    write(dir(), "int", csv);
    // Each write replaces all ten values, and the storage warns of each.
    auto replaced = [&](const char* prefix) { return QByteArray(csv).replace(",", prefix); };
    const Outcome normal = kelts({"write", dir(), "--type", "int"}, replaced(",1"));
    EXPECT_EQ(normal.status, 0);
    EXPECT_EQ(normal.err.count("kelts: warning: Value on"), 3) << qPrintable(normal.err);
    EXPECT_TRUE(normal.err.contains("7 more messages like \"Value on")) << qPrintable(normal.err);

    const Outcome verbose = kelts({"write", dir(), "--type", "int", "-v"}, replaced(",2"));
    EXPECT_EQ(verbose.err.count("kelts: warning: Value on"), 10);
    EXPECT_TRUE(verbose.err.contains("[lib/KelTSFileStorage/src/TSFileStorage:")) << qPrintable(verbose.err);

    const Outcome quiet = kelts({"write", dir(), "--type", "int", "--quiet"}, replaced(",3"));
    EXPECT_EQ(quiet.status, 0);
    EXPECT_TRUE(quiet.err.isEmpty()) << qPrintable(quiet.err);
}

TEST_F(KeltsTool, CalendarDaysBeginWhereTheOffsetSays)
{
    QByteArray csv;
    for (int h = 0; h < 48; ++h)   // hourly from 2024-05-06T00:00Z
        csv += QStringLiteral("%1,1\n").arg(1714953600000LL + h * 3600000LL).toUtf8();
    write(dir(), "double", csv);
    // Days from 22:00 UTC: the last two hours of each UTC day belong to the
    // next. The day that began before the first record is passed over, as
    // the storage moves an aligned start before the series forward by whole
    // intervals.
    const QStringList east = readLines(dir(), "double", {"--method", "count", "--interval", "day", "--align",
                                                         "--label-start", "--offset-min", "120"});
    EXPECT_EQ(east, (QStringList{"timestamp,value", "1715032800000,24", "1715119200000,2"}));
    EXPECT_EQ(kelts({"count", dir(), "--type", "double", "--method", "count", "--interval", "day", "--align",
                     "--offset-min", "120"}).out,
              QStringLiteral("%1\n").arg(east.size() - 1));
}

TEST_F(KeltsTool, CheckNamesLeftoversAndStraysInCompanions)
{
    write(dir(), "double", "2024-05-07T09:00:00Z,1\n2024-05-07T09:00:10Z,2\n");
    write(dir(), "double", "2024-05-07T09:00:10Z,3\n", {"--overwritten"});
    const QString base = dir() + "/D/2024";
    QFile(base).copy(base + ".new");
    QFile(base).copy(dir() + "/D/.spare");
    QDir().mkpath(dir() + "/DO/old");
    // The log of replaced values is filed under the time of the write.
    const QString log = dir() + "/DO/V/" + QDir(dir() + "/DO/V").entryList({"????"}, QDir::Files).value(0);
    QFile(log + ".var").rename(log + ".var.bak");
    const Outcome r = kelts({"check", dir(), "--type", "double"});
    EXPECT_EQ(r.status, 1);
    for (const QString& expected : {base + ".new: left by an interrupted rewrite",
                                    dir() + "/D/.spare: left by an interrupted batch write",
                                    dir() + "/DO/old: stray entry in a companion directory",
                                    log + ".var.bak: stray file",
                                    log + ".var: side file missing or unreadable"})
        EXPECT_TRUE(r.out.contains(expected)) << qPrintable(expected) << "\n" << qPrintable(r.out);
    EXPECT_TRUE(r.out.contains("checked 1 series and 1 companion, 2 files, 3 records: 5 problems")) << qPrintable(r.out);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

namespace {

using namespace Kel::test;

TEST_F(KeltsTool, LsAndInfoCoverEverySeriesUnderARootAndTypesNeedNoNamingWhereTheyAreClear)
{
    write(dir("plant/boiler1"), "double", "2024-05-01T00:00:00Z,1.5\n2024-05-01T00:00:10Z,2.5\n");
    write(dir("plant/area 2/pump"), "int", "2024-05-02T00:00:00Z,7\n");
    write(dir("plant/area 2/pump"), "string", "2024-05-03T00:00:00Z,on\n");
    QDir().mkpath(dir("plant/notes"));

    const Outcome ls = kelts({"ls", dir("plant")});
    EXPECT_EQ(ls.status, 0) << qPrintable(ls.err);
    EXPECT_EQ(lines(ls.out), (QStringList{"series,types,records,first,last",
                                          "area 2/pump,int or uint,1,2024-05-02T00:00:00.000Z,2024-05-02T00:00:00.000Z",
                                          "area 2/pump,string or variant,1,2024-05-03T00:00:00.000Z,2024-05-03T00:00:00.000Z",
                                          "boiler1,double,2,2024-05-01T00:00:00.000Z,2024-05-01T00:00:10.000Z"}));
    EXPECT_EQ(lines(kelts({"ls", dir("plant/boiler1"), "--time", "ms"}).out).value(1),
              ".,double,2,1714521600000,1714521610000");
    EXPECT_EQ(kelts({"ls", dir("plant/notes")}).status, 1);

    // --type may go where the directory leaves no doubt.
    EXPECT_EQ(lines(kelts({"last", dir("plant/boiler1")}).out), QStringList{"2024-05-01T00:00:10.000Z,2.5"});
    const Outcome ambiguous = kelts({"read", dir("plant/area 2/pump")});
    EXPECT_EQ(ambiguous.status, 2);
    EXPECT_TRUE(ambiguous.err.contains("holds int or uint (I/), string or variant (V/)")) << qPrintable(ambiguous.err);

    const Outcome info = kelts({"info", dir("plant")});
    EXPECT_EQ(info.status, 0);
    EXPECT_TRUE(info.out.contains(dir("plant/area 2/pump") + "\n")) << qPrintable(info.out);
    EXPECT_TRUE(info.out.contains(dir("plant/boiler1") + "\n")) << qPrintable(info.out);
}

} // namespace

namespace {

using namespace Kel::test;

TEST_F(KeltsTool, TimesAreTypedAndPrintedInTheZoneAsked)
{
    write(dir(), "int", "2024-03-31 01:30,1\n2024-03-31T03:30:00,2\n20240331T120002Z,3\n",
          {"--tz", "Europe/Berlin"});
    EXPECT_EQ(readLines(dir(), "int"), (QStringList{"timestamp,value", "1711845000000,1", "1711848600000,2",
                                                   "1711886402000,3"}));
    const Outcome local = kelts({"read", dir(), "--type", "int", "--tz", "Europe/Berlin", "--from", "2024-03-31T03:00:00"});
    EXPECT_EQ(lines(local.out), (QStringList{"timestamp,value", "2024-03-31T03:30:00.000+02:00,2",
                                             "2024-03-31T14:00:02.000+02:00,3"}));
    const Outcome skipped = kelts({"write", dir(), "--type", "int", "--tz", "Europe/Berlin"}, "2024-03-31T02:30:00,9\n");
    EXPECT_EQ(skipped.status, 2);
    EXPECT_TRUE(skipped.err.contains("the clocks skip it")) << qPrintable(skipped.err);
    EXPECT_EQ(kelts({"read", dir(), "--type", "int", "--tz", "Nowhere/Atall"}).status, 2);
}

} // namespace

namespace {

using namespace Kel::test;

TEST_F(KeltsTool, GapsFindsGapsNanRunsAndFlatLines)
{
    // Two hours of one-second readings: a 10-minute hole, ten NaN values and
    // a value stuck for the last 53 minutes.
    QByteArray csv;
    for (int i = 0; i < 7200; ++i) {
        if (i >= 1000 && i < 1600)
            continue;
        const QByteArray value = i >= 3000 && i < 3010 ? "nan" : i >= 4000 ? "5" : QByteArray::number(i % 7);
        csv += QByteArray::number(1714521600000LL + i * 1000LL) + ',' + value + '\n';
    }
    write(dir(), "double", csv);

    const Outcome found = kelts({"gaps", dir(), "--flat-longer-than", "30m"});
    EXPECT_EQ(found.status, 0) << qPrintable(found.err);
    EXPECT_EQ(lines(found.out), (QStringList{"kind,from,to,seconds,records",
                                             "gap,2024-05-01T00:16:39.000Z,2024-05-01T00:26:40.000Z,601.000,0",
                                             "nan,2024-05-01T00:50:00.000Z,2024-05-01T00:50:09.000Z,9.000,10",
                                             "flat,2024-05-01T01:06:40.000Z,2024-05-01T01:59:59.000Z,3199.000,3200"}));
    EXPECT_TRUE(found.err.contains("1 gaps longer than 5s")) << qPrintable(found.err);   // five usual steps
    EXPECT_EQ(lines(kelts({"gaps", dir(), "--longer-than", "11m", "--flat-longer-than", "1h"}).out).size(), 2);
    const Outcome table = kelts({"gaps", dir(), "--format", "table", "--time", "ms"});
    EXPECT_TRUE(table.out.contains("gap    1714522599000")) << qPrintable(table.out);
    EXPECT_TRUE(table.out.contains("10m 1s")) << qPrintable(table.out);
    EXPECT_EQ(kelts({"gaps", dir(), "--longer-than", "soon"}).status, 2);
}

} // namespace

namespace {

using namespace Kel::test;

class KeltsReadFormats : public KeltsTool {
protected:
    void SetUp() override
    {
        write(dir("a"), "double", "2024-05-01T00:00:00Z,1\n2024-05-01T00:30:00Z,3\n2024-05-01T01:00:00Z,nan\n");
        write(dir("b"), "double", "2024-05-01T00:00:00Z,10\n2024-05-01T01:10:00Z,20\n");
    }
};

TEST_F(KeltsReadFormats, JsonAndTableCarryWhatCsvCarries)
{
    const Outcome json = kelts({"read", dir("a"), "--format", "json", "--time", "ms"});
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.out.simplified().remove(u' '),
              "[{\"timestamp\":1714521600000,\"value\":1},{\"timestamp\":1714523400000,\"value\":3},"
              "{\"timestamp\":1714525200000,\"value\":null}]");
    EXPECT_EQ(kelts({"read", dir("a"), "--format", "json", "--from", "2030-01-01", "--to", "2030-01-02"}).out.trimmed(), "[]");
    write(dir("text"), "string", "2024-05-01T00:00:00Z,\"say \"\"hi\"\"\"\n");
    EXPECT_TRUE(kelts({"read", dir("text"), "--type", "string", "--format", "json"}).out.contains(R"("value":"say \"hi\"")"));

    const QStringList table = lines(kelts({"read", dir("a"), "--format", "table"}).out);
    ASSERT_EQ(table.size(), 4);
    EXPECT_TRUE(table[0].startsWith("timestamp"));
    EXPECT_TRUE(table[1].startsWith("2024-05-01T00:00:00.000Z"));
    EXPECT_TRUE(table[1].endsWith(" 1"));
    EXPECT_EQ(table[1].size(), table[2].size());   // aligned
    EXPECT_EQ(kelts({"read", dir("a"), "--format", "xml"}).status, 2);
}

TEST_F(KeltsReadFormats, SeveralSeriesShareOneTimeGrid)
{
    const Outcome both = kelts({"read", dir("a"), dir("b"), "--method", "meanA", "--interval", "30m", "--align"});
    EXPECT_EQ(both.status, 0) << qPrintable(both.err);
    const QStringList rows = lines(both.out);
    EXPECT_EQ(rows.value(0), "timestamp,a,b");
    ASSERT_GE(rows.size(), 3);
    for (const QString& row : rows.mid(1))
        EXPECT_EQ(row.count(u','), 2) << qPrintable(row);
    // Each column is what a read of that series alone gives.
    const QStringList alone = lines(kelts({"read", dir("b"), "--method", "meanA", "--interval", "30m", "--align"}).out);
    for (const QString& row : alone.mid(1))
        EXPECT_TRUE(rows.contains(QRegularExpression(QRegularExpression::escape(row.section(u',', 0, 0)) + ",[^,]*," +
                                                     QRegularExpression::escape(row.section(u',', 1)) + "$")))
            << qPrintable(row);
    EXPECT_EQ(kelts({"read", dir("a"), dir("b")}).status, 2);   // raw: no common grid
}

TEST_F(KeltsReadFormats, TailPrintsTheLastRecordsAndFollowsNewOnes)
{
    EXPECT_EQ(lines(kelts({"tail", dir("a"), "-n", "2", "--time", "ms"}).out),
              (QStringList{"timestamp,value", "1714523400000,3", "1714525200000,nan"}));

    QProcess follow;
    follow.start(QStringLiteral(KELTS_BINARY), {"tail", dir("b"), "-n", "1", "-f", "--poll", "1", "--time", "ms"});
    ASSERT_TRUE(follow.waitForStarted());
    QByteArray seen;
    while (!seen.contains("1714525800000,20") && follow.waitForReadyRead(10000))
        seen += follow.readAllStandardOutput();
    write(dir("b"), "double", "2024-05-01T02:00:00Z,30\n");
    while (!seen.contains("1714528800000,30") && follow.waitForReadyRead(10000))
        seen += follow.readAllStandardOutput();
    follow.terminate();   // SIGTERM ends it cleanly
    ASSERT_TRUE(follow.waitForFinished(10000));
    seen += follow.readAllStandardOutput();
    EXPECT_EQ(follow.exitCode(), 0);
    EXPECT_EQ(QString::fromUtf8(seen).split(u'\n', Qt::SkipEmptyParts),
              (QStringList{"timestamp,value", "1714525800000,20", "1714528800000,30"}));
}

} // namespace
