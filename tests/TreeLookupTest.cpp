#include "TSDirControl.h"
#include "TestSupport.h"

#include <QFile>

#include <gtest/gtest.h>

#include <sys/stat.h>

using Kel::TSDirControl;
using Kel::TSFileInfo;
using namespace Kel::test;

// Each test builds a small tree by hand under a scratch base directory.
class TreeLookup : public ::testing::Test {
protected:
    QString at(const char* rel) const { return base + QLatin1String(rel); }
    // The path of an info relative to the base directory ("" for an empty info).
    QString rel(const TSFileInfo& info) const
    {
        return info.filePath().startsWith(base) ? info.filePath().mid(base.size()) : info.filePath();
    }

    QTemporaryDir tmp;
    QString base = tmp.path() + QStringLiteral("/");
    TSDirControl tree{base};
};

// A file holds its period; a miss names the file where it would go.
TEST_F(TreeLookup, DescendsIntoDirectoriesUntilAFileOrAGap)
{
    touch(at("2023"));
    touch(at("2024/05"));
    makeDir(at("2025/05/07/09/03"));
    const struct {
        const char* time;
        bool found;
        const char* path;
        const char* subDir;
        TSFileInfo::DirDepth depth;
    } cases[] = {
        {"2023-05-07T09:03:00Z", true, "2023", "", TSFileInfo::DEPTH_YEAR},
        {"2026-01-02T00:00:00Z", false, "2026", "", TSFileInfo::DEPTH_YEAR},
        {"2024-05-17T12:00:00Z", true, "2024/05", "2024/", TSFileInfo::DEPTH_MONTH},
        {"2024-06-01T00:00:00Z", false, "2024/06", "2024/", TSFileInfo::DEPTH_MONTH},
        // A directory where the minute file would be: back to the year entry.
        {"2025-05-07T09:03:10Z", false, "2025", "", TSFileInfo::DEPTH_YEAR},
    };
    for (const auto& c : cases) {
        const TSFileInfo info = tree.findFile(ms(c.time));
        EXPECT_EQ(info.found(), c.found) << c.time;
        EXPECT_EQ(rel(info), QLatin1String(c.path)) << c.time;
        EXPECT_EQ(info.getSubDir(), QLatin1String(c.subDir)) << c.time;
        EXPECT_EQ(info.getDirDepth(), c.depth) << c.time;
    }
}

TEST_F(TreeLookup, FirstLastPrevAndNextAcrossFilesAndDirectoriesSideBySide)
{
    touch(at("2023"));
    touch(at("2024/01"));
    touch(at("2024/02"));
    touch(at("2024/02.var"));

    EXPECT_EQ(rel(tree.findFirstFile()), QStringLiteral("2023"));
    EXPECT_EQ(rel(tree.findLastFile()), QStringLiteral("2024/02"));

    const TSFileInfo y2023 = tree.findFirstFile();
    const TSFileInfo jan = tree.findNextFile(y2023);
    EXPECT_EQ(rel(jan), QStringLiteral("2024/01"));
    EXPECT_EQ(jan.getSubDir(), QStringLiteral("2024/"));
    EXPECT_EQ(rel(tree.findPrevFile(jan)), QStringLiteral("2023"));
    EXPECT_EQ(rel(tree.findNextFile(jan)), QStringLiteral("2024/02"));
    EXPECT_FALSE(tree.findNextFile(tree.findLastFile()).found());
    EXPECT_TRUE(tree.findNextFile(tree.findLastFile()).filePath().isEmpty());
    EXPECT_TRUE(tree.findPrevFile(y2023).filePath().isEmpty());
}

// The neighbours of a file, or of a missing one, are the nearest files of
// the periods around it, in whatever branch they lie.
TEST_F(TreeLookup, NeighboursAreTheNearestFilesInAnyBranch)
{
    touch(at("2023/12/30"));
    touch(at("2023/12/31/22"));
    touch(at("2023/12/31/23"));
    touch(at("2024/01/01"));
    touch(at("2024/03"));

    const TSFileInfo lastOf2023 = tree.findFile(ms("2023-12-31T23:30:00Z"));
    ASSERT_TRUE(lastOf2023.found());
    EXPECT_EQ(rel(tree.findNextFile(lastOf2023)), QStringLiteral("2024/01/01"));
    EXPECT_EQ(rel(tree.findPrevFile(tree.findFile(ms("2024-01-01T05:00:00Z")))), QStringLiteral("2023/12/31/23"));
    EXPECT_EQ(rel(tree.findPrevFile(tree.findFile(ms("2023-12-31T22:00:00Z")))), QStringLiteral("2023/12/30"));

    const TSFileInfo missing = tree.findFile(ms("2024-02-10T00:00:00Z"));
    ASSERT_FALSE(missing.found());
    EXPECT_EQ(rel(tree.findNextFile(missing)), QStringLiteral("2024/03"));
    EXPECT_EQ(rel(tree.findPrevFile(missing)), QStringLiteral("2024/01/01"));
}

// Levels are files, directories and what links point to; names of other
// lengths, hidden names, pipes and dangling links are passed over.
TEST_F(TreeLookup, OnlyEntriesOfTheTreeAreSeen)
{
    for (const char* name : {"2024.var", "notes.txt", "7", "12345", ".024"})
        touch(at(name));
    ASSERT_EQ(::mkfifo(QFile::encodeName(at("2023")).constData(), 0600), 0);
    ASSERT_TRUE(QFile::link(at("nowhere"), at("2022")));
    EXPECT_TRUE(tree.findFirstFile().filePath().isEmpty());
    EXPECT_TRUE(tree.findLastFile().filePath().isEmpty());

    QTemporaryDir elsewhere;
    touch(elsewhere.path() + QStringLiteral("/07"));
    ASSERT_TRUE(QFile::link(elsewhere.path(), at("2024")));
    ASSERT_TRUE(QFile::link(elsewhere.path() + QStringLiteral("/07"), at("2025")));
    EXPECT_EQ(rel(tree.findFirstFile()), QStringLiteral("2024/07"));
    EXPECT_EQ(rel(tree.findLastFile()), QStringLiteral("2025"));
    EXPECT_EQ(rel(tree.findNextFile(tree.findFirstFile())), QStringLiteral("2025"));
    EXPECT_EQ(rel(tree.findPrevFile(tree.findLastFile())), QStringLiteral("2024/07"));
}

TEST_F(TreeLookup, MissingBaseDirectoryFindsNothing)
{
    TSDirControl missing(base + QStringLiteral("nothing/here"));
    EXPECT_TRUE(missing.findFirstFile().filePath().isEmpty());
    const TSFileInfo info = missing.findFile(ms("2024-01-01T00:00:00Z"));
    EXPECT_FALSE(info.found());
    EXPECT_TRUE(info.filePath().endsWith(QStringLiteral("nothing/here/2024")));
    EXPECT_TRUE(missing.findNextFile(info).filePath().isEmpty());
    EXPECT_TRUE(missing.findNextFile(TSFileInfo()).filePath().isEmpty());
}

// A walk ends at an empty directory. A name that is no date (month 20)
// has no period; the walk moves on by the names on disk and ends, where it
// used to start over from 1970 for ever.
TEST_F(TreeLookup, WalksEndAtAnEmptyDirectoryAndPastANameThatIsNoDate)
{
    touch(at("2024/06"));
    makeDir(at("2024/07"));
    touch(at("2024/08"));
    EXPECT_TRUE(tree.findNextFile(tree.findFile(ms("2024-06-15T00:00:00Z"))).filePath().isEmpty());
    makeDir(at("2025"));
    EXPECT_TRUE(tree.findLastFile().filePath().isEmpty());

    QDir(base).removeRecursively();
    touch(at("3820/20"));
    touch(at("5702/05/19/07"));
    TSFileInfo info = tree.findFirstFile();
    ASSERT_EQ(rel(info), QStringLiteral("3820/20"));
    info = tree.findNextFile(info);
    ASSERT_EQ(rel(info), QStringLiteral("5702/05/19/07"));
    EXPECT_FALSE(tree.findNextFile(info).found());
    info = tree.findPrevFile(info);
    ASSERT_EQ(rel(info), QStringLiteral("3820/20"));
    EXPECT_FALSE(tree.findPrevFile(info).found());
}
