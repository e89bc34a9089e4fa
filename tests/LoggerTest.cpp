#include "KelLogger.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using Kel::Logger;
using namespace Kel::test;

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
