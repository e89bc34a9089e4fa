#include "KelLogger.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using Kel::Logger;
using namespace Kel::test;

TEST(Logger, FillsPlaceholdersInOrderAndHandsEntryToSink)
{
    LogCapture log;
    Logger::instance().out(4, QStringLiteral("File open failed (%1) on '%2', attempt %3"), "src/X", 140)
        .arg(QStringLiteral("Read,"))
        .arg(QStringLiteral("/tmp/a"))
        .arg(3)
        .endl();
    ASSERT_EQ(log.entries.size(), 1u);
    EXPECT_EQ(log.entries[0].message, QStringLiteral("File open failed (Read,) on '/tmp/a', attempt 3"));
    EXPECT_EQ(log.entries[0].level, 4);
    EXPECT_EQ(log.entries[0].sourceFile, QStringLiteral("src/X"));
    EXPECT_EQ(log.entries[0].line, 140);
}

TEST(Logger, LowestPlaceholderIsFilledFirstArgumentsAreNotFilledAgainAndOnlyEndlDelivers)
{
    LogCapture log;
    Logger::instance().out(2, QStringLiteral("%2 after %1"), "s", 1).arg(QStringLiteral("a%2")).arg(QStringLiteral("b"));
    EXPECT_TRUE(log.entries.empty());
    Logger::instance().out(2, QStringLiteral("%2 after %1"), "s", 1)
        .arg(QStringLiteral("a%2"))
        .arg(QStringLiteral("b"))
        .endl();
    ASSERT_EQ(log.entries.size(), 1u);
    EXPECT_EQ(log.entries[0].message, QStringLiteral("b after a%2"));
}
