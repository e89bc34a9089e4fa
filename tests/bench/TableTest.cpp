// The table: ratios of medians between the rows of one run, and the targets
// checked on them.
#include "Table.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using namespace bench;

namespace {

Rates at(double median)
{
    return Rates{median, median / 2, median * 2, 3};
}

Table threeRows()
{
    Table t;
    t.section("Writing");
    t.add({"append", "append", at(50.0), "limit", "peer", "", ""});
    t.add({"limit", "write(2) of day files", at(200.0), "", "", "", "write(2)"});
    t.add({"peer", "SQLite: insert", at(10.0), "", "", "", "SQLite"});
    return t;
}

std::string printed(const Table& t, int& missed)
{
    char* text = nullptr;
    size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    missed = t.print(out);
    std::fclose(out);
    std::string s(text, size);
    std::free(text);
    return s;
}

} // namespace

TEST(Table, RatiosAreOfMediansAndMissingRowsGiveNone)
{
    const Table t = threeRows();
    EXPECT_DOUBLE_EQ(t.ratio("append", "limit"), 0.25);
    EXPECT_DOUBLE_EQ(t.ratio("append", "peer"), 5.0);
    EXPECT_EQ(t.ratio("append", "nothing"), 0.0);
    EXPECT_EQ(t.find("Writing"), nullptr);
    ASSERT_NE(t.find("peer"), nullptr);
    EXPECT_EQ(t.find("peer")->label, "SQLite");
    // A row without a label of its own is cited by its name.
    EXPECT_EQ(t.find("append")->label, "append");
}

TEST(Table, PrintShowsTheRatiosAndCountsTheMissedTargets)
{
    Table t = threeRows();
    t.target({"append", "limit", 0.25});
    t.target({"append", "peer", 6.0});
    t.target({"append", "nothing", 1.0});  // a row the run did not measure is left out
    int missed = -1;
    const std::string out = printed(t, missed);
    EXPECT_EQ(missed, 1);
    EXPECT_NE(out.find("0.25x write(2)"), std::string::npos) << out;
    EXPECT_NE(out.find("5.00x SQLite"), std::string::npos) << out;
    EXPECT_NE(out.find("25.0 .. 100"), std::string::npos) << out;
    EXPECT_NE(out.find("met"), std::string::npos);
    EXPECT_NE(out.find("MISSED"), std::string::npos);
    EXPECT_EQ(out.find("nothing"), std::string::npos);
}
