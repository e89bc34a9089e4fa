// Method strings into method, modifiers and difference pre-stage; filters
// from JSON; the filter test of a record in the machine's local time.
#include "EngineHarness.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

#include <memory>

using Kel::Interpolate;
using namespace Kel::test;

namespace {

class MethodStrings : public ::testing::Test {
protected:
    // "METHOD linear align fill fillNull average diff" for a method string,
    // each flag as 0 or 1, diff as -, d (plain) or c (counter).
    std::string parsed(const char* method, long long interval)
    {
        std::vector<DataRecord> out;
        int resultCount = 0;
        const Interpolate e(request(method, interval), {}, 0, 0, 0, 0, &out, QMetaType::Double, false, resultCount,
                            false);
        static const char* const names[] = {"RAW",    "PREV_NEXT", "PREV",   "NEXT",   "MIN_MAX",
                                            "MIN",    "MAX",       "SUM",    "MEAN_A", "MEAN_G",
                                            "MEAN_H", "MEAN_S",    "MEDIAN", "MODE",   "COUNT"};
        std::string text = names[e.method] + std::string(" ");
        for (const bool flag : {e.linear, e.align, e.fill, e.fillNull, e.average})
            text += flag ? '1' : '0';
        text += e.diffHandler == &Interpolate::handle_DIFF                ? " d"
                : e.diffHandler == &Interpolate::handle_DIFF_CTRUPCLEANED ? " c"
                                                                          : " -";
        return text;
    }
};

TEST_F(MethodStrings, KeywordsChooseMethodModifiersAndDifference)
{
    const struct {
        const char* text;
        long long interval;
        const char* expected;
    } cases[] = {
        // The keyword at the start chooses the method, the first match winning;
        // the means, median, mode and count always align.
        {"prevNext", 60, "PREV_NEXT 00000 -"}, {"prev", 60, "PREV 00000 -"},       {"next", 60, "NEXT 00000 -"},
        {"MinMax", 60, "MIN_MAX 00000 -"},     {"minimum", 60, "MIN 00000 -"},      {"maximum", 60, "MAX 00000 -"},
        {"sum", 60, "SUM 00000 -"},            {"MEANG", 60, "MEAN_G 01000 -"},     {"meanH", 60, "MEAN_H 01000 -"},
        {"meanS", 60, "MEAN_S 01000 -"},       {"median", 60, "MEDIAN 01000 -"},    {"mode", 60, "MODE 01000 -"},
        {"counter", 60, "COUNT 01000 -"},
        // Modifiers are found anywhere and adjusted per method.
        {"prevNextAlignFillNullAverageLinear", 60, "PREV_NEXT 11111 -"},
        {"prevnextalign", 60, "PREV_NEXT 01000 -"},
        {"meanALinear", 60, "MEAN_A 01000 -"},
        {"minMaxLinearAverage", 60, "MIN_MAX 00001 -"},
        {"sumLinear", 60, "SUM 10000 -"},
        {"countFillNull", 60, "COUNT 01110 -"},
        // Without a method keyword linear filling is forced.
        {"", 60, "PREV_NEXT 10100 -"},         {"mean", 60, "PREV_NEXT 10100 -"},   {"align", 60, "PREV_NEXT 10100 -"},
        {"fillnull", 60, "PREV_NEXT 10100 -"}, {"linearmin", 60, "PREV_NEXT 10100 -"},
        {"average", 60, "PREV_NEXT 10101 -"},
        // Difference keywords choose the pre-stage and default to a linear sum.
        {"diffSum", 60, "SUM 00000 d"},        {"sumdiff", 60, "SUM 00000 d"},      {"diff", 60, "SUM 10100 d"},
        {"DIFFCTRUPCLEANED", 60, "SUM 10100 c"},
        {"diffCtrUpCleanedMeanA", 60, "MEAN_A 01000 c"},
        // A zero interval reads raw records but keeps the difference.
        {"meanAFillLinear", 0, "RAW 00000 -"}, {"diff", 0, "RAW 00000 d"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(parsed(c.text, c.interval), c.expected) << c.text;
}

// What each key does is shown by the matching below; here, what parsing
// alone decides.
TEST(FilterParsing, TheListIsReplacedAndTimesAreReadToTheMillisecondOrNotAtAll)
{
    Interpolate::InterpolateParam p;
    p.filterParams.resize(3);
    Interpolate::parseFilterparams(QJsonDocument::fromJson(R"([{"timeStart":"22:00","duration":28800,"value":2.5},
        {}, {"timeStart":"06:30:15.250"}, {"timeStart":"half past six"}])").array(), p);
    ASSERT_EQ(p.filterParams.size(), 4u);
    EXPECT_EQ(p.filterParams[0].value, 2.5);
    EXPECT_FALSE(p.filterParams[0].timeEnd.isValid());  // computed on first use
    EXPECT_FALSE(p.filterParams[1].timeStart.isValid());
    EXPECT_EQ(p.filterParams[2].timeStart, QTime(6, 30, 15, 250));
    EXPECT_FALSE(p.filterParams[3].timeStart.isValid());
}

class FilterMatching : public ::testing::Test {
protected:
    void use(const char* json)
    {
        Interpolate::InterpolateParam p = request("meanA", 60);
        Interpolate::parseFilterparams(QJsonDocument::fromJson(json).array(), p);
        engine = std::make_unique<Interpolate>(p, std::vector<Interpolate::InterpolateParam>{}, 0, 0, 0, 0, &out,
                                               QMetaType::Double, false, resultCount, false);
    }

    bool matches(const char* time, const QVariant& value = QVariant(0.0))
    {
        return engine->filterMatch(DataRecord{ms(time), value});
    }

    // "1" for each time that passes, "0" for each that does not.
    std::string passing(std::initializer_list<const char*> times)
    {
        std::string result;
        for (const char* time : times)
            result += matches(time) ? '1' : '0';
        return result;
    }

    ScopedEnv zone{"TZ", "UTC"};
    std::vector<DataRecord> out;
    int resultCount = 0;
    std::unique_ptr<Interpolate> engine;
};

TEST_F(FilterMatching, WindowsIncludeBothEndsAcrossMidnightAndZeroOrADayIsAnInstant)
{
    use(R"([{"timeStart":"22:00","duration":28800}])");
    EXPECT_EQ(passing({"2024-05-07T22:00:00Z", "2024-05-07T23:30:00Z", "2024-05-08T05:00:00Z", "2024-05-08T06:00:00Z",
                       "2024-05-08T06:00:00.001Z", "2024-05-07T12:00:00Z"}),
              "111100");
    EXPECT_EQ(engine->filters[0].timeEnd, QTime(6, 0));

    // A duration of zero or of a whole day is a single instant.
    for (const char* json : {R"([{"timeStart":"08:00","duration":0}])", R"([{"timeStart":"08:00","duration":86400}])"}) {
        use(json);
        EXPECT_EQ(passing({"2024-05-07T08:00:00Z", "2024-05-07T08:00:00.001Z", "2024-05-07T07:59:59.999Z"}), "100")
            << json;
    }
}

TEST_F(FilterMatching, CalendarAndClockAreThoseOfTheMachinesTimeZone)
{
    use(R"([{"weekDays":[6,7]}])");
    // Saturday, Sunday, Friday evening: already Saturday in Tokyo.
    EXPECT_EQ(passing({"2024-05-11T12:00:00Z", "2024-05-12T12:00:00Z", "2024-05-10T20:00:00Z"}), "110");
    zone.set("JST-9");
    EXPECT_EQ(passing({"2024-05-10T20:00:00Z"}), "1");

    // 23:30 summer time; 01:30; April.
    zone.set("CET-1CEST,M3.5.0,M10.5.0/3");
    use(R"([{"timeStart":"23:00","duration":3600,"months":[5]}])");
    EXPECT_EQ(passing({"2024-05-07T21:30:00Z", "2024-05-07T23:30:00Z", "2024-04-30T21:30:00Z"}), "100");
}

TEST_F(FilterMatching, ValueComparisons)
{
    // Which of 4.9, 5 and 5.000001 pass a comparison with 5.
    const std::pair<const char*, const char*> cases[] = {{"lt", "100"},  {"lte", "110"}, {"gt", "001"},
                                                         {"gte", "011"}, {"neq", "101"}, {"eq", "010"},
                                                         {"EQ", "010"},  {"Eq", "010"},  {"equal", "010"}};
    for (const auto& [op, expected] : cases) {
        use((QByteArray(R"([{"valueCompare":")") + op + R"(","value":5}])").constData());
        std::string passing;
        for (const double x : {4.9, 5.0, 5.000001})
            passing += matches("2024-05-07T12:00:00Z", x) ? '1' : '0';
        EXPECT_EQ(passing, expected) << op;
    }
    use(R"([{"valueCompare":"eq","value":0}])");
    EXPECT_TRUE(matches("2024-05-07T12:00:00Z", QVariant(QStringLiteral("abc"))));  // no number: 0
}

TEST_F(FilterMatching, TestsOfOneFilterAreAllRequiredAndFiltersOfAListAreAlternatives)
{
    use(R"([{"weekDays":[6],"valueCompare":"gt","value":10},{"months":[3]}])");
    EXPECT_TRUE(matches("2024-05-11T12:00:00Z", 11));   // Saturday and above 10
    EXPECT_FALSE(matches("2024-05-11T12:00:00Z", 9));   // Saturday only
    EXPECT_FALSE(matches("2024-05-10T12:00:00Z", 11));  // above 10 only
    EXPECT_TRUE(matches("2024-03-05T12:00:00Z", 0));    // the second filter
    use("[{}]");
    EXPECT_TRUE(matches("2024-05-07T12:00:00Z", 123));
    use("[]");
    EXPECT_FALSE(matches("2024-05-07T12:00:00Z", 123));
}

} // namespace
