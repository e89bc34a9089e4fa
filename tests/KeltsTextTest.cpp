// The text side of kelts without a process or a storage: times, values and
// CSV as operators type them, and the SVG chart as a browser gets it.

#include "Csv.h"
#include "GraphiteQuery.h"
#include "SvgChart.h"
#include "TimeText.h"
#include "ValueText.h"

#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QXmlStreamReader>

#include <cstring>
#include <random>

using namespace kelts;

namespace {

long long parsedMs(const char* text)
{
    long long ms = 0;
    QString why;
    EXPECT_TRUE(parseTimestamp(QString::fromUtf8(text), ms, why)) << text << ": " << qPrintable(why);
    return ms;
}

QString refusal(const char* text)
{
    long long ms = 0;
    QString why;
    EXPECT_FALSE(parseTimestamp(QString::fromUtf8(text), ms, why)) << text;
    return why;
}

TEST(KeltsTimeText, AcceptsTheFormsOperatorsType)
{
    const struct {
        const char* text;
        long long ms;
    } cases[] = {
        {"0", 0},                                    {"-1500", -1500},
        {"1715072580000", 1715072580000},            {"2024-05-07T09:03:00Z", 1715072580000},
        {"2024-05-07T09:03:00.250Z", 1715072580250}, {"2024-05-07T09:03:00.5Z", 1715072580500},
        {"2024-05-07T09:03:00.05z", 1715072580050},  {"2024-05-07 09:03Z", 1715072580000},
        {"2024-05-07T11:03:00+02:00", 1715072580000}, {"2024-05-07T07:33:00-0130", 1715072580000},
        {"2024-05-07", 1715040000000},               {"2024-02-29", 1709164800000},
        {"  2024-05-07T09:03:00Z ", 1715072580000},  {"9999-12-31T23:59:59.999Z", kLatestMs},
        {"1969-12-31T23:59:59.999Z", -1},
        // Finer fractions keep their milliseconds; the basic form.
        {"2024-05-07T09:03:00.123456Z", 1715072580123}, {"2024-05-07T09:03:00,999999999Z", 1715072580999},
        {"20240507T090300Z", 1715072580000},         {"20240507T110300.25+0200", 1715072580250},
        {"20240507T0903Z", 1715072580000},
    };
    for (const auto& c : cases)
        EXPECT_EQ(parsedMs(c.text), c.ms) << c.text;
}

TEST(KeltsTimeText, LocalTimesFollowTheChosenZoneAndItsClockChanges)
{
    setTimeZone(QTimeZone("Europe/Berlin"));
    EXPECT_EQ(parsedMs("2024-03-31T01:30:00"), 1711845000000);   // +01:00, before the change
    EXPECT_EQ(parsedMs("2024-03-31T03:30:00"), 1711848600000);   // +02:00, after it
    EXPECT_EQ(parsedMs("2024-05-07"), 1715032800000);            // local midnight
    EXPECT_EQ(parsedMs("2024-05-07T09:03:00Z"), 1715072580000);  // a zone given wins
    EXPECT_TRUE(refusal("2024-03-31T02:30:00").contains("the clocks skip it"));
    EXPECT_TRUE(refusal("2024-10-27T02:30:00").contains("happens twice"));
    EXPECT_EQ(parsedMs("2024-10-27T02:30:00+01:00"), 1729992600000);
    EXPECT_EQ(formatTime(1711848600000, TimeFormat::Iso), "2024-03-31T03:30:00.000+02:00");
    char row[kTimeTextBytes];
    EXPECT_EQ(writeTime(row, 1711848600000, TimeFormat::Iso), nullptr);   // local times take the general way
    EXPECT_EQ(formatTime(1711848600000, TimeFormat::Ms), "1711848600000");
    setTimeZone(std::nullopt);
    EXPECT_EQ(formatTime(1711848600000, TimeFormat::Iso), "2024-03-31T01:30:00.000Z");
    EXPECT_TRUE(refusal("2024-03-31T01:30:00").contains("no time zone"));

    QTimeZone zone;
    QString why;
    EXPECT_FALSE(parseTimeZone(u"Mars/Olympus", zone, why));
    EXPECT_TRUE(why.contains("no time zone"));
}

TEST(KeltsTimeText, RefusesWhatItCannotBeSureOfAndSaysWhy)
{
    const std::pair<const char*, const char*> cases[] = {
        {"2024-05-07T09:03:00", "no time zone"},        {"2023-02-29", "names no calendar date"},
        {"2024-05-07T24:00:00Z", "names no time of day"}, {"2024-05-07T09:60:00Z", "names no time of day"},
        {"2024-05-07T09:03:00.1234567890Z", "is not a time"}, {"2024-05-07T09:03:00+2", "is not a time"},
        {"20240507T0903", "no time zone"},
        {"99999999999999999999", "too large"},          {"253402300800000", "outside the years 0 to 9999"},
        {"yesterday", "is not a time"},                 {"", "is not a time"},
    };
    for (const auto& [text, why] : cases)
        EXPECT_TRUE(refusal(text).contains(QLatin1String(why))) << text;
}

TEST(KeltsTimeText, PrintedTimesReadBackAsTheSameInstant)
{
    std::mt19937_64 random(5);
    std::uniform_int_distribution<long long> anyMs(-62135596800000LL, kLatestMs);   // year 1 on
    for (int i = 0; i < 2000; ++i) {
        const long long ms = anyMs(random);
        ASSERT_EQ(parsedMs(qPrintable(isoTime(ms))), ms) << qPrintable(isoTime(ms));
        ASSERT_EQ(parsedMs(qPrintable(formatTime(ms, TimeFormat::Ms))), ms);
    }
}

// Rows of a read are written straight into a buffer; the text must be the
// one the general way prints, to the character.
TEST(KeltsTimeText, TimesWrittenIntoRowsAreThePrintedOnes)
{
    std::mt19937_64 random(6);
    std::uniform_int_distribution<long long> anyMs(-62135596800000LL, kLatestMs);
    std::vector<long long> instants = {0, -1, 1, -62135596800000LL, kLatestMs, 951782400000LL /* 2000-02-29 */,
                                       4107542399999LL /* 2100-02-28 end */, -86400000LL, -86400001LL};
    for (int i = 0; i < 20000; ++i)
        instants.push_back(anyMs(random));
    for (const long long ms : instants) {
        for (const TimeFormat format : {TimeFormat::Iso, TimeFormat::Ms}) {
            char text[kTimeTextBytes];
            const char* end = writeTime(text, ms, format);
            ASSERT_NE(end, nullptr) << ms;
            ASSERT_EQ(QString::fromLatin1(text, int(end - text)), formatTime(ms, format)) << ms;
        }
    }
    char text[kTimeTextBytes];
    EXPECT_EQ(writeTime(text, kEarliestMs, TimeFormat::Iso), nullptr);  // year 0: isoTime's own
}

TEST(KeltsTimeText, BoundsAreTimesOrAnchorsWithAShift)
{
    const struct {
        const char* text;
        TimeBound::Anchor anchor;
        long long ms;
    } cases[] = {
        {"now", TimeBound::Now, 0},          {"first", TimeBound::First, 0},
        {"last", TimeBound::Last, 0},        {"now-24h", TimeBound::Now, -86400000},
        {"last-15m", TimeBound::Last, -900000}, {"first+1d", TimeBound::First, 86400000},
        {"now-90", TimeBound::Now, -90000},  {"last-250ms", TimeBound::Last, -250},
        {"now-2w", TimeBound::Now, -1209600000}, {"2024-05-07", TimeBound::Exact, 1715040000000},
    };
    for (const auto& c : cases) {
        TimeBound b;
        QString why;
        ASSERT_TRUE(parseBound(QString::fromLatin1(c.text), b, why)) << c.text << qPrintable(why);
        EXPECT_EQ(b.anchor, c.anchor) << c.text;
        EXPECT_EQ(b.ms, c.ms) << c.text;
    }
    for (const char* bad : {"now-", "now-1y", "last+-1h", "later", "first-1.5h"}) {
        TimeBound b;
        QString why;
        EXPECT_FALSE(parseBound(QString::fromLatin1(bad), b, why)) << bad;
        EXPECT_FALSE(why.isEmpty()) << bad;
    }
}

TEST(KeltsTimeText, IntervalsAreWhatTheLibraryTakes)
{
    const struct {
        const char* text;
        long long interval;
        const char* described;
    } cases[] = {
        {"900", 900, "15m"},   {"15m", 900, "15m"},     {"1h", 3600, "1h"},         {"90s", 90, "90s"},
        {"1d", 86400, "1d"},   {"1w", 604800, "7d"},    {"day", -1, "day"},         {"Week", -2, "week"},
        {"month", -3, "month"}, {"quarter", -4, "quarter"}, {"halfyear", -5, "halfyear"}, {"YEAR", -6, "year"},
        {"raw", 0, "raw"},     {"0", 0, "raw"},
    };
    for (const auto& c : cases) {
        long long interval = 99;
        QString why;
        ASSERT_TRUE(parseInterval(QString::fromLatin1(c.text), interval, why)) << c.text;
        EXPECT_EQ(interval, c.interval) << c.text;
        EXPECT_EQ(describeInterval(interval), QLatin1String(c.described)) << c.text;
    }
    for (const char* bad : {"500ms", "1500ms", "1.5h", "fortnight", "-5", "", "h"}) {
        long long interval = 0;
        QString why;
        EXPECT_FALSE(parseInterval(QString::fromLatin1(bad), interval, why)) << bad;
    }
}

QVariant parsed(const char* text, QMetaType::Type type)
{
    QVariant v;
    QString why;
    EXPECT_TRUE(parseValue(QString::fromUtf8(text), type, v, why)) << text << ": " << qPrintable(why);
    return v;
}

bool refused(const char* text, QMetaType::Type type)
{
    QVariant v;
    QString why;
    return !parseValue(QString::fromUtf8(text), type, v, why) && !why.isEmpty();
}

TEST(KeltsValueText, EachTypeTakesItsRangeAndNothingBeyond)
{
    const struct {
        QMetaType::Type type;
        std::vector<const char*> taken;
        std::vector<const char*> refused;
    } cases[] = {
        {QMetaType::Bool, {"true", "FALSE", "1", "0", " true "}, {"yes", "2", "", "-1"}},
        {QMetaType::Char, {"-128", "127", "+5"}, {"128", "-129", "a", "1.0"}},
        {QMetaType::UChar, {"0", "255"}, {"256", "-1"}},
        {QMetaType::Short, {"-32768", "32767"}, {"32768", "-32769"}},
        {QMetaType::UShort, {"0", "65535"}, {"65536", "-1"}},
        {QMetaType::Int, {"-2147483648", "2147483647"}, {"2147483648", "1e3", "0x10"}},
        {QMetaType::UInt, {"4294967295"}, {"4294967296", "-1"}},
        {QMetaType::LongLong, {"-9223372036854775808", "9223372036854775807"}, {"9223372036854775808"}},
        {QMetaType::ULongLong, {"18446744073709551615"}, {"18446744073709551616", "-0.5"}},
        {QMetaType::Float, {"0.1", "3.4028235e38", "-inf", "nan", "+2.5"}, {"3.5e38", "1,5", "", "--1"}},
        {QMetaType::Double, {"1e308", "-4.9e-324", "inf", "1E5"}, {"1e309", "abc", "1.5.5"}},
        {QMetaType::QString, {"", " any, text "}, {}},
        {QMetaType::QVariant, {"42", "\"x\"", "{\"a\":1}", "[1,2]", "null", "true"}, {"x", "{a:1}", "1 2", ""}},
    };
    for (const auto& c : cases) {
        for (const char* text : c.taken)
            parsed(text, c.type);
        for (const char* text : c.refused)
            EXPECT_TRUE(refused(text, c.type)) << valueTypeName(c.type).toStdString() << " took '" << text << "'";
    }
}

TEST(KeltsValueText, FloatsAndDoublesPrintShortAndReadBackBitForBit)
{
    std::mt19937_64 random(11);
    for (int i = 0; i < 20000; ++i) {
        const quint64 bits = random();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (std::isnan(d))
            continue;
        const QString text = formatValue(QVariant(d), QMetaType::Double);
        const double back = parsed(qPrintable(text), QMetaType::Double).toDouble();
        ASSERT_EQ(std::memcmp(&back, &d, sizeof d), 0) << qPrintable(text);

        const quint32 fbits = quint32(bits);
        float f;
        std::memcpy(&f, &fbits, sizeof f);
        if (std::isnan(f))
            continue;
        const QString ftext = formatValue(QVariant(f), QMetaType::Float);
        const float fback = parsed(qPrintable(ftext), QMetaType::Float).toFloat();
        ASSERT_EQ(std::memcmp(&fback, &f, sizeof f), 0) << qPrintable(ftext);
    }
    EXPECT_EQ(formatValue(QVariant(), QMetaType::Double), "");
}

TEST(KeltsValueText, ValuesWrittenIntoRowsAreThePrintedOnes)
{
    const double inf = std::numeric_limits<double>::infinity();
    const std::pair<QVariant, QMetaType::Type> cases[] = {
        {QVariant(), QMetaType::Double},           {QVariant(0.1), QMetaType::Double},
        {QVariant(-0.0), QMetaType::Double},       {QVariant(std::nan("")), QMetaType::Double},
        {QVariant(-inf), QMetaType::Double},       {QVariant(1e300), QMetaType::Double},
        {QVariant(3.4e38f), QMetaType::Float},     {QVariant(true), QMetaType::Bool},
        {QVariant(false), QMetaType::Bool},        {QVariant(-128), QMetaType::Char},
        {QVariant(65535), QMetaType::UShort},      {QVariant(uint(4294967295u)), QMetaType::UInt},
        {QVariant(qlonglong(-9223372036854775807LL - 1)), QMetaType::LongLong},
        {QVariant(qulonglong(18446744073709551615ULL)), QMetaType::ULongLong},
    };
    for (const auto& [value, type] : cases) {
        char text[kValueTextBytes];
        const char* end = writeValue(text, value, type);
        ASSERT_NE(end, nullptr) << qPrintable(value.toString());
        EXPECT_EQ(QString::fromLatin1(text, int(end - text)), formatValue(value, type));
    }
    char text[kValueTextBytes];
    EXPECT_EQ(writeValue(text, QVariant(QStringLiteral("a,b")), QMetaType::QString), nullptr);
    EXPECT_EQ(writeValue(text, QVariant(42), QMetaType::QVariant), nullptr);
}

TEST(KeltsValueText, TypeNamesAreTheOperatorsWords)
{
    QMetaType::Type type = QMetaType::UnknownType;
    QString why;
    ASSERT_TRUE(parseValueType(u"Double", type, why));
    EXPECT_EQ(type, QMetaType::Double);
    ASSERT_TRUE(parseValueType(u"long", type, why));
    EXPECT_EQ(type, QMetaType::LongLong);   // 64 bits, not the platform's long
    EXPECT_FALSE(parseValueType(u"decimal", type, why));
    EXPECT_TRUE(why.contains("bool, char, uchar, short, ushort, int, uint, long, ulong, float, double, string, variant"));
}

std::vector<CsvReader::Row> rowsOf(const QString& text)
{
    CsvReader reader(text);
    std::vector<CsvReader::Row> rows;
    CsvReader::Row row;
    while (reader.next(row))
        rows.push_back(row);
    return rows;
}

TEST(KeltsCsv, SplitsRowsTheWaySpreadsheetsWriteThem)
{
    const QString text = QString(QChar(0xFEFF)) +
                         "timestamp,value\r\n"
                         "\r\n"
                         "# a comment\n"
                         "1,\"a, b\"\r\n"
                         "2,\"say \"\"hi\"\"\"\n"
                         "3,\"two\nlines\"\n"
                         "4,\n"
                         "5,\"closed\"junk\n"
                         "6,plain\n"
                         "7,\"never closed\n";
    const std::vector<CsvReader::Row> rows = rowsOf(text);
    ASSERT_EQ(rows.size(), 8u);
    const struct {
        int line;
        QStringList fields;
        bool error;
    } expected[] = {
        {1, {"timestamp", "value"}, false}, {4, {"1", "a, b"}, false},   {5, {"2", "say \"hi\""}, false},
        {6, {"3", "two\nlines"}, false},     {8, {"4", ""}, false},       {9, {}, true},
        {10, {"6", "plain"}, false},         {11, {}, true},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].line, expected[i].line) << i;
        EXPECT_EQ(!rows[i].error.isEmpty(), expected[i].error) << i;
        if (!expected[i].error) {
            EXPECT_EQ(rows[i].fields, expected[i].fields) << i;
        }
    }
}

QStringList labelsOf(const QString& svg)
{
    static const QRegularExpression text(QStringLiteral("<text[^>]*>([^<]*)</text>"));
    QStringList labels;
    for (auto it = text.globalMatch(svg); it.hasNext();)
        labels << it.next().captured(1);
    return labels;
}

Chart lineChart(long long from, long long to, int points)
{
    Chart chart;
    chart.title = QStringLiteral("t");
    ChartLine line{QStringLiteral("values"), {}};
    for (int i = 0; i < points; ++i)
        line.points.emplace_back(from + (to - from) * i / (points - 1), double(i % 7));
    chart.lines.push_back(line);
    return chart;
}

QString rendered(const Chart& chart)
{
    QString svg;
    EXPECT_TRUE(renderSvg(chart, svg));
    QXmlStreamReader xml(svg);
    while (!xml.atEnd())
        xml.readNext();
    EXPECT_FALSE(xml.hasError()) << qPrintable(xml.errorString());
    return svg;
}

TEST(KeltsSvgChart, TimeTicksFallOnRoundUtcTimes)
{
    const long long monday = 1714953600000;   // 2024-05-06T00:00:00Z
    const struct {
        long long from, to;
        int points;
        QStringList labels;  // some of the tick labels expected
    } charts[] = {
        {monday, monday + 7 * 86400000 - 1000, 500, {"Mon 05-06", "Wed 05-08", "Sun 05-12"}},
        {monday + 6 * 3600000, monday + 9 * 3600000, 500, {"06:00", "06:30", "09:00", "Mon 05-06"}},
        {monday, monday + 50000, 50, {"00:00:05"}},
        {monday, monday + 3 * 365LL * 86400000, 500, {"2025-01", "2026-07"}},
    };
    for (const auto& c : charts) {
        const QStringList labels = labelsOf(rendered(lineChart(c.from, c.to, c.points)));
        for (const QString& label : c.labels)
            EXPECT_TRUE(labels.contains(label)) << qPrintable(label) << " in " << qPrintable(labels.join(u' '));
    }

    // Two months: weekly ticks, every one a Monday.
    int mondays = 0;
    for (const QString& label : labelsOf(rendered(lineChart(monday, monday + 60LL * 86400000, 500))))
        if (QRegularExpression(QStringLiteral("^\\w{3} \\d\\d-\\d\\d$")).match(label).hasMatch()) {
            EXPECT_TRUE(label.startsWith("Mon")) << qPrintable(label);
            ++mondays;
        }
    EXPECT_GE(mondays, 8);
}

TEST(KeltsSvgChart, ThinningKeepsEveryPeakAndStaysSmall)
{
    Chart chart;
    ChartLine line{QStringLiteral("values"), {}};
    for (int i = 0; i < 300000; ++i)
        line.points.emplace_back(i * 1000LL, i == 123457 ? 100.0 : i == 234567 ? -100.0 : 0.5 * (i % 3));
    chart.lines.push_back(line);
    const QString svg = rendered(chart);
    EXPECT_LT(svg.size(), 200000);
    static const QRegularExpression points(QStringLiteral("<polyline[^>]* points=\"([^\"]*)\""));
    const QString coordinates = points.match(svg).captured(1);
    double top = 1e9, bottom = -1e9;
    for (const QString& pair : coordinates.split(u' ', Qt::SkipEmptyParts)) {
        const double y = pair.section(u',', 1).toDouble();
        top = std::min(top, y);
        bottom = std::max(bottom, y);
    }
    // The axis ends on the extremes, so the peak and the dip touch the frame.
    EXPECT_NEAR(top, 70.0, 0.11);
    EXPECT_NEAR(bottom, chart.height - 56.0, 0.11);
}

TEST(KeltsSvgChart, GapsBreakLinesBandsShadeAndTextIsEscaped)
{
    Chart chart = lineChart(0, 3600000, 100);
    chart.lines[0].points[50].second = std::nan("");
    chart.title = QStringLiteral("<boiler & \"pump\">");
    chart.bands.push_back({QStringLiteral("min to max"), {{0, 1.0, 2.0}, {60000, 1.5, 3.0}, {120000, 1.0, 2.5}}});
    const QString svg = rendered(chart);
    EXPECT_EQ(svg.count("<polyline"), 2);
    EXPECT_EQ(svg.count("<polygon"), 1);
    EXPECT_TRUE(svg.contains("&lt;boiler &amp; &quot;pump&quot;&gt;"));

    Chart empty;
    empty.lines.push_back({QStringLiteral("nothing"), {{0, std::nan("")}}});
    QString svgText;
    EXPECT_FALSE(renderSvg(empty, svgText));
}

} // namespace

namespace {

using namespace kelts;

TEST(KeltsGraphiteQuery, TimesAndIntervalsInGraphitesForms)
{
    const long long now = 1714564800000;   // 2024-05-01T12:00:00Z
    const std::pair<const char*, long long> times[] = {
        {"now", now},           {"-6h", now - 6 * 3600000LL}, {"now-15min", now - 900000}, {"-1d", now - 86400000},
        {"+30s", now + 30000},  {"1714521600", 1714521600000}, {"12:30_20240501", 1714566600000}, {"20240501", 1714521600000},
        {"-2w", now - 14 * 86400000LL}, {"-1mon", now - 30 * 86400000LL},
    };
    for (const auto& [text, ms] : times) {
        long long got = 0;
        QString why;
        EXPECT_TRUE(parseGraphiteTime(QString::fromLatin1(text), now, got, why)) << text << qPrintable(why);
        EXPECT_EQ(got, ms) << text;
    }
    long long got = 0;
    QString why;
    EXPECT_FALSE(parseGraphiteTime(u"yesterday", now, got, why));
    EXPECT_FALSE(parseGraphiteTime(u"-6x", now, got, why));
    EXPECT_FALSE(parseGraphiteTime(u"25:00_20240501", now, got, why));
    EXPECT_FALSE(parseGraphiteTime(u"171452161452160000", now, got, why));   // found by the fuzzer: an overflow
    EXPECT_FALSE(parseGraphiteTime(u"-999999999y", now, got, why));

    const std::pair<const char*, long long> intervals[] = {{"1h", 3600}, {"15min", 900}, {"1d", -1}, {"2d", 172800},
                                                           {"1w", -2},   {"1mon", -3},   {"1y", -6}};
    for (const auto& [text, interval] : intervals) {
        long long value = 0;
        EXPECT_TRUE(parseGraphiteInterval(QString::fromLatin1(text), true, value, why)) << text;
        EXPECT_EQ(value, interval) << text;
    }
    long long value = 0;
    EXPECT_FALSE(parseGraphiteInterval(u"2mon", true, value, why));
    EXPECT_FALSE(parseGraphiteInterval(u"0h", true, value, why));
}

TEST(KeltsGraphiteQuery, TargetsParseIntoCallsAndGlobsMatchSegmentBySegment)
{
    Target t;
    QString why;
    ASSERT_TRUE(parseTarget(u"alias(summarize(plant.{a,b}.t*, '1h', \"avg\"), 'x y')", t, why)) << qPrintable(why);
    EXPECT_EQ(t.kind, Target::Kind::Call);
    EXPECT_EQ(t.text, "alias");
    ASSERT_EQ(t.args.size(), 2u);
    EXPECT_EQ(t.args[0].text, "summarize");
    EXPECT_EQ(t.args[0].args[0].kind, Target::Kind::Path);
    EXPECT_EQ(t.args[0].args[0].text, "plant.{a,b}.t*");
    EXPECT_EQ(t.args[0].args[2].text, "avg");
    EXPECT_EQ(t.args[1].text, "x y");
    ASSERT_TRUE(parseTarget(u"constantLine(-1.5e2)", t, why));
    EXPECT_EQ(t.args[0].number, -150.0);
    for (const char* bad : {"alias(a", "alias(a,)", "'open", "f(a))", ""})
        EXPECT_FALSE(parseTarget(QString::fromLatin1(bad), t, why)) << bad;
    EXPECT_FALSE(parseTarget(QString(41, u'(') + u'a', t, why));   // nested too deep

    EXPECT_TRUE(globMatches(u"plant.*.temp", u"plant.boiler1.temp"));
    EXPECT_FALSE(globMatches(u"plant.*", u"plant.boiler1.temp"));   // a star stays in its segment
    EXPECT_TRUE(globMatches(u"plant.{boiler1,boiler2}.t?mp", u"plant.boiler2.temp"));
    EXPECT_TRUE(globMatches(u"plant.boiler[0-9]", u"plant.boiler7"));
    EXPECT_FALSE(globMatches(u"plant.boiler[0-9]", u"plant.boilerX"));
    EXPECT_TRUE(globMatches(u"a+b.(c)", u"a+b.(c)"));   // other characters are themselves
    EXPECT_FALSE(globMatches(QString(200, u'*') + u'b', QString(5000, u'a')));   // no runaway
}

} // namespace
