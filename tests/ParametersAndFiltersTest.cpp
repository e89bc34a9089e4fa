// Method strings into method, modifiers and difference pre-stage; filters
// from JSON; the filter test of a record in the machine's local time.
#include "EngineHarness.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

#include <ctime>
#include <memory>

using Kel::Interpolate;
using Kel::test::DataRecord;
using Kel::test::ms;
using Kel::test::request;

namespace {

// --- method strings ---

class MethodStrings : public ::testing::Test {
protected:
    Interpolate& parse(const char* method, long long interval = 60)
    {
        built = std::make_unique<Interpolate>(request(method, interval), std::vector<Interpolate::InterpolateParam>{},
                                              0, 0, 0, 0, &out, QMetaType::Double, false, resultCount, false);
        return *built;
    }

    // The flags as "linear align fill fillNull average", 1 for set.
    static std::string flags(const Interpolate& e)
    {
        std::string f;
        for (const bool flag : {e.linear, e.align, e.fill, e.fillNull, e.average})
            f += flag ? '1' : '0';
        return f;
    }

    std::vector<DataRecord> out;
    int resultCount = 0;
    std::unique_ptr<Interpolate> built;
};

TEST_F(MethodStrings, KeywordsAtTheStartChooseTheMethodFirstMatchWinning)
{
    struct Case {
        const char* text;
        Interpolate::InterpolateMethod method;
    };
    const Case cases[] = {
        {"prevNext", Interpolate::PREV_NEXT}, {"prev", Interpolate::PREV},       {"next", Interpolate::NEXT},
        {"MinMax", Interpolate::MIN_MAX},     {"minimum", Interpolate::MIN},     {"maximum", Interpolate::MAX},
        {"sum", Interpolate::SUM},            {"meanA", Interpolate::MEAN_A},    {"MEANG", Interpolate::MEAN_G},
        {"meanH", Interpolate::MEAN_H},       {"meanS", Interpolate::MEAN_S},    {"median", Interpolate::MEDIAN},
        {"mode", Interpolate::MODE},          {"counter", Interpolate::COUNT},
    };
    for (const Case& c : cases)
        EXPECT_EQ(parse(c.text).method, c.method) << c.text;
}

TEST_F(MethodStrings, ModifiersAreFoundAnywhereAndFillNullImpliesFill)
{
    const Interpolate& e = parse("prevNextAlignFillNullAverageLinear");
    EXPECT_EQ(e.method, Interpolate::PREV_NEXT);
    EXPECT_EQ(flags(e), "11111");
    EXPECT_EQ(flags(parse("prevnextalign")), "01000");
}

TEST_F(MethodStrings, WithoutAMethodKeywordLinearFillingIsForced)
{
    for (const char* text : {"", "mean", "align", "fillnull", "linearmin"}) {
        const Interpolate& e = parse(text);
        EXPECT_EQ(e.method, Interpolate::PREV_NEXT) << text;
        EXPECT_EQ(flags(e), "10100") << text;
        EXPECT_EQ(e.diffHandler, nullptr) << text;
    }
    EXPECT_EQ(flags(parse("average")), "10101");
}

TEST_F(MethodStrings, DifferenceKeywordsChooseThePreStageAndDefaultToALinearSum)
{
    Interpolate& diffSum = parse("diffSum");
    EXPECT_EQ(diffSum.diffHandler, &Interpolate::handle_DIFF);
    EXPECT_EQ(diffSum.method, Interpolate::SUM);
    EXPECT_EQ(flags(diffSum), "00000");

    Interpolate& sumDiff = parse("sumdiff");
    EXPECT_EQ(sumDiff.diffHandler, &Interpolate::handle_DIFF);
    EXPECT_EQ(sumDiff.method, Interpolate::SUM);

    Interpolate& diff = parse("diff");
    EXPECT_EQ(diff.method, Interpolate::SUM);
    EXPECT_EQ(flags(diff), "10100");

    Interpolate& cleaned = parse("DIFFCTRUPCLEANED");
    EXPECT_EQ(cleaned.diffHandler, &Interpolate::handle_DIFF_CTRUPCLEANED);
    EXPECT_EQ(cleaned.method, Interpolate::SUM);
    EXPECT_EQ(parse("diffCtrUpCleanedMeanA").method, Interpolate::MEAN_A);
}

TEST_F(MethodStrings, ZeroIntervalReadsRawRecordsButKeepsTheDifference)
{
    Interpolate& raw = parse("meanAFillLinear", 0);
    EXPECT_EQ(raw.method, Interpolate::RAW);
    EXPECT_EQ(flags(raw), "00000");
    EXPECT_EQ(raw.diffHandler, nullptr);
    EXPECT_EQ(raw.handler, &Interpolate::handle_raw);

    Interpolate& rawDiff = parse("diff", 0);
    EXPECT_EQ(rawDiff.method, Interpolate::RAW);
    EXPECT_EQ(rawDiff.diffHandler, &Interpolate::handle_DIFF);
}

TEST_F(MethodStrings, HandlersAdjustModifiersPerMethod)
{
    EXPECT_EQ(flags(parse("meanALinear")), "01000");
    EXPECT_EQ(flags(parse("minMaxLinearAverage")), "00001");
    EXPECT_EQ(flags(parse("sumLinear")), "10000");
    EXPECT_EQ(flags(parse("countFillNull")), "01110");
    EXPECT_EQ(parse("countFillNull").handler, &Interpolate::handle_COUNT);
    EXPECT_EQ(parse("next").handler, &Interpolate::handle_NEXT);
}

// --- filters from JSON ---

Interpolate::InterpolateParam parsedFilters(const char* json)
{
    Interpolate::InterpolateParam p;
    p.filterParams.push_back(Interpolate::FilterParam{});  // replaced, not kept
    Interpolate::parseFilterparams(QJsonDocument::fromJson(json).array(), p);
    return p;
}

TEST(FilterParsing, EveryKeyIsReadAndMissingKeysTakeDefaults)
{
    const Interpolate::InterpolateParam p = parsedFilters(
        R"([{"timeStart":"22:00","duration":28800,"weekDays":[6,7],"months":[1,12],"valueCompare":"GT","value":2.5},
            {}])");
    ASSERT_EQ(p.filterParams.size(), 2u);
    const Interpolate::FilterParam& f = p.filterParams[0];
    EXPECT_EQ(f.timeStart, QTime(22, 0));
    EXPECT_FALSE(f.timeEnd.isValid());
    EXPECT_EQ(f.duration, 28800);
    EXPECT_EQ(f.weekDays, (std::vector<int>{6, 7}));
    EXPECT_EQ(f.months, (std::vector<int>{1, 12}));
    EXPECT_EQ(f.valueCompare, QStringLiteral("GT"));
    EXPECT_EQ(f.value, 2.5);

    const Interpolate::FilterParam& empty = p.filterParams[1];
    EXPECT_FALSE(empty.timeStart.isValid());
    EXPECT_EQ(empty.duration, 0);
    EXPECT_TRUE(empty.weekDays.empty());
    EXPECT_TRUE(empty.valueCompare.isEmpty());
    EXPECT_EQ(empty.value, 0.0);
}

TEST(FilterParsing, TimesWithSecondsAndMillisecondsParseAndOthersSwitchTheTestOff)
{
    const Interpolate::InterpolateParam p =
        parsedFilters(R"([{"timeStart":"06:30:15.250"},{"timeStart":"half past six"},{"timeStart":7}])");
    ASSERT_EQ(p.filterParams.size(), 3u);
    EXPECT_EQ(p.filterParams[0].timeStart, QTime(6, 30, 15, 250));
    EXPECT_FALSE(p.filterParams[1].timeStart.isValid());
    EXPECT_FALSE(p.filterParams[2].timeStart.isValid());
}

// --- matching, in the machine's local time ---

class FilterMatching : public ::testing::Test {
protected:
    void SetUp() override
    {
        savedTz = qgetenv("TZ");
        hadTz = qEnvironmentVariableIsSet("TZ");
        setZone("UTC");
    }

    void TearDown() override
    {
        if (hadTz)
            qputenv("TZ", savedTz);
        else
            qunsetenv("TZ");
        tzset();
    }

    static void setZone(const char* zone)
    {
        qputenv("TZ", zone);
        tzset();
    }

    bool matches(const char* json, const char* time, double value = 0.0)
    {
        Interpolate::InterpolateParam p = request("meanA", 60);
        Interpolate::parseFilterparams(QJsonDocument::fromJson(json).array(), p);
        engine = std::make_unique<Interpolate>(p, std::vector<Interpolate::InterpolateParam>{}, 0, 0, 0, 0, &out,
                                               QMetaType::Double, false, resultCount, false);
        return engine->filterMatch(DataRecord{ms(time), QVariant(value)});
    }

    bool matchesAgain(const char* time, double value = 0.0)
    {
        return engine->filterMatch(DataRecord{ms(time), QVariant(value)});
    }

    QByteArray savedTz;
    bool hadTz = false;
    std::vector<DataRecord> out;
    int resultCount = 0;
    std::unique_ptr<Interpolate> engine;
};

TEST_F(FilterMatching, WindowAcrossMidnightAcceptsBothEndsAndKeepsItsComputedEnd)
{
    const char* nights = R"([{"timeStart":"22:00","duration":28800}])";
    EXPECT_TRUE(matches(nights, "2024-05-07T23:30:00Z"));
    EXPECT_EQ(engine->filters[0].timeEnd, QTime(6, 0));
    EXPECT_TRUE(matchesAgain("2024-05-08T05:00:00Z"));
    EXPECT_TRUE(matchesAgain("2024-05-08T06:00:00Z"));
    EXPECT_TRUE(matchesAgain("2024-05-07T22:00:00Z"));
    EXPECT_FALSE(matchesAgain("2024-05-07T12:00:00Z"));
    EXPECT_FALSE(matchesAgain("2024-05-08T06:00:00.001Z"));
}

TEST_F(FilterMatching, ZeroDurationOrAWholeDayIsASingleInstant)
{
    for (const char* json : {R"([{"timeStart":"08:00","duration":0}])", R"([{"timeStart":"08:00","duration":86400}])"}) {
        EXPECT_TRUE(matches(json, "2024-05-07T08:00:00Z")) << json;
        EXPECT_FALSE(matchesAgain("2024-05-07T08:00:00.001Z")) << json;
        EXPECT_FALSE(matchesAgain("2024-05-07T07:59:59.999Z")) << json;
    }
}

TEST_F(FilterMatching, TimeOfDayIsTheMachinesLocalTime)
{
    setZone("CET-1CEST,M3.5.0,M10.5.0/3");
    // 21:30 UTC in May is 23:30 in Central European summer time.
    EXPECT_TRUE(matches(R"([{"timeStart":"23:00","duration":3600}])", "2024-05-07T21:30:00Z"));
    EXPECT_FALSE(matchesAgain("2024-05-07T23:30:00Z"));
}

TEST_F(FilterMatching, WeekDaysAndMonthsOfTheLocalCalendar)
{
    const char* weekend = R"([{"weekDays":[6,7]}])";
    EXPECT_TRUE(matches(weekend, "2024-05-11T12:00:00Z"));   // Saturday
    EXPECT_TRUE(matchesAgain("2024-05-12T12:00:00Z"));       // Sunday
    EXPECT_FALSE(matchesAgain("2024-05-13T12:00:00Z"));      // Monday
    setZone("JST-9");
    EXPECT_TRUE(matchesAgain("2024-05-10T20:00:00Z"));       // already Saturday in Tokyo

    setZone("UTC");
    const char* winter = R"([{"months":[12,1,2]}])";
    EXPECT_TRUE(matches(winter, "2024-01-31T23:59:59Z"));
    EXPECT_FALSE(matchesAgain("2024-03-01T00:00:00Z"));
}

TEST_F(FilterMatching, ValueComparisons)
{
    const auto passes = [this](const char* op, double x) {
        const QByteArray json = QByteArray(R"([{"valueCompare":")") + op + R"(","value":5}])";
        return matches(json.constData(), "2024-05-07T12:00:00Z", x);
    };
    EXPECT_TRUE(passes("lt", 4.9));
    EXPECT_FALSE(passes("lt", 5));
    EXPECT_TRUE(passes("lte", 5));
    EXPECT_TRUE(passes("gt", 5.1));
    EXPECT_FALSE(passes("gt", 5));
    EXPECT_TRUE(passes("gte", 5));
    EXPECT_TRUE(passes("neq", 5.000001));
    EXPECT_FALSE(passes("neq", 5));
    for (const char* equality : {"eq", "EQ", "Eq", "equal"}) {
        EXPECT_TRUE(passes(equality, 5)) << equality;
        EXPECT_FALSE(passes(equality, 5.000001)) << equality;
    }
}

TEST_F(FilterMatching, ValueThatIsNoNumberCountsAsZero)
{
    matches(R"([{"valueCompare":"eq","value":0}])", "2024-05-07T12:00:00Z");
    EXPECT_TRUE(engine->filterMatch(DataRecord{ms("2024-05-07T12:00:00Z"), QVariant(QStringLiteral("abc"))}));
}

TEST_F(FilterMatching, TestsOfOneFilterAreAllRequiredAndFiltersOfAListAreAlternatives)
{
    const char* json = R"([{"weekDays":[6],"valueCompare":"gt","value":10},{"months":[3]}])";
    EXPECT_TRUE(matches(json, "2024-05-11T12:00:00Z", 11));   // Saturday and above 10
    EXPECT_FALSE(matchesAgain("2024-05-11T12:00:00Z", 9));    // Saturday only
    EXPECT_FALSE(matchesAgain("2024-05-10T12:00:00Z", 11));   // above 10 only
    EXPECT_TRUE(matchesAgain("2024-03-05T12:00:00Z", 0));     // the second filter
}

TEST_F(FilterMatching, FilterWithoutKeysMatchesEverythingAndAnEmptyListNothing)
{
    EXPECT_TRUE(matches("[{}]", "2024-05-07T12:00:00Z", 123));
    EXPECT_FALSE(matches("[]", "2024-05-07T12:00:00Z", 123));
}

} // namespace
