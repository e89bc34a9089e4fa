// The tool never answers wrongly with status 0: output that cannot be
// written stops it, a read that meets damage says so, check reports what it
// cannot read, a method string the storage would misread is refused, and a
// write that fails says what was stored and why.

#include "KeltsProcess.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <optional>

#include <unistd.h>

namespace {

using namespace Kel::test;

class KeltsStatus : public KeltsTool {
protected:
    // A month of hourly int readings, 0 to 743, in one year file.
    void writeMonth(const QString& series)
    {
        QByteArray csv;
        for (int i = 0; i < 744; ++i)
            csv += QByteArray::number(1714521600000LL + i * 3600000LL) + ',' + QByteArray::number(i) + '\n';
        write(series, "int", csv);
    }

    // Runs kelts through bash, for pipes and limits.
    Outcome keltsInShell(const QString& script)
    {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("KELTS"), QStringLiteral(KELTS_BINARY));
        p.setProcessEnvironment(env);
        p.start(QStringLiteral("bash"), {QStringLiteral("-c"), QStringLiteral("set -o pipefail; ") + script});
        EXPECT_TRUE(p.waitForFinished(120000));
        return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()), QString::fromUtf8(p.readAllStandardError())};
    }

    // Runs kelts as a user who is not the owner of the scratch files: as
    // nobody when the tests run as root (who may read anything), else as
    // the same user, whom a chmod already shuts out. Empty when that user
    // cannot start the tool (a build tree closed to others).
    std::optional<Outcome> keltsAsOtherUser(const QStringList& args, const QByteArray& input = QByteArray())
    {
        QFile::setPermissions(tmp.path(), QFile::permissions(tmp.path()) | QFile::ExeOther | QFile::ReadOther);
        if (::geteuid() != 0)
            return kelts(args, input);
        const QStringList asNobody{"--reuid=65534", "--regid=65534", "--clear-groups", KELTS_BINARY};
        QProcess probe;
        probe.start(QStringLiteral("setpriv"), asNobody + QStringList{"--version"});
        if (!probe.waitForFinished(30000) || probe.exitStatus() != QProcess::NormalExit || probe.exitCode() != 0)
            return std::nullopt;
        QProcess p;
        p.start(QStringLiteral("setpriv"), asNobody + args);
        p.write(input);
        p.closeWriteChannel();
        EXPECT_TRUE(p.waitForFinished(120000));
        return Outcome{p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()),
                       QString::fromUtf8(p.readAllStandardError())};
    }

    void shutOut(const QString& path) { QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner); }
    void openUp(const QString& path)
    {
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadOther |
                                        QFile::ExeOther);
    }
};

TEST_F(KeltsStatus, OutputThatCannotBeWrittenStopsTheCommandWithStatus4)
{
    writeMonth(dir());

    QProcess full;
    full.setStandardOutputFile(QStringLiteral("/dev/full"));
    full.start(QStringLiteral(KELTS_BINARY), {"read", dir(), "--type", "int"});
    ASSERT_TRUE(full.waitForFinished(60000));
    EXPECT_EQ(full.exitCode(), 4);
    EXPECT_TRUE(full.readAllStandardError().contains("could not be written: No space left on device"));

    const Outcome count = keltsInShell(QStringLiteral("\"$KELTS\" count %1 --type int > /dev/full").arg(dir()));
    EXPECT_EQ(count.status, 4) << qPrintable(count.err);

    // A closed pipe stops the read at the next piece it hands over.
    QByteArray big;
    for (int i = 0; i < 300000; ++i)
        big += QByteArray::number(1714521600000LL + i * 1000LL) + ',' + QByteArray::number(i) + '\n';
    write(dir("big"), "int", big);
    const Outcome head = keltsInShell(QStringLiteral("\"$KELTS\" read %1 --type int | head -2").arg(dir("big")));
    EXPECT_EQ(head.status, 4) << qPrintable(head.err);
    EXPECT_EQ(lines(head.out).size(), 2);
    EXPECT_TRUE(head.err.contains("Broken pipe")) << qPrintable(head.err);
}

TEST_F(KeltsStatus, ARawReadThatMeetsADamagedRecordWarnsAndExitsWith3)
{
    writeMonth(dir());
    EXPECT_EQ(kelts({"read", dir(), "--type", "int", "--limit", "10"}).status, 0);
    EXPECT_EQ(kelts({"read", dir(), "--type", "int", "--filters", R"({"value":100,"valueCompare":"lt"})"}).status, 0);

    QFile year(dir() + "/I/2024");
    ASSERT_TRUE(year.open(QIODevice::ReadWrite));
    year.seek(100 * 9);   // the 101st record's offset: weeks after the file's period
    year.write(QByteArray::fromHex("FFFFFFFF"));
    year.close();

    const Outcome damaged = kelts({"read", dir(), "--type", "int"});
    EXPECT_EQ(damaged.status, 3);
    EXPECT_EQ(lines(damaged.out).size(), 1 + 100);   // the header and the records before the damage
    EXPECT_TRUE(damaged.err.contains("100 of the 744 records stored in the range came back")) << qPrintable(damaged.err);
    EXPECT_TRUE(damaged.err.contains("check " + dir())) << qPrintable(damaged.err);
    EXPECT_EQ(kelts({"read", dir(), "--type", "int", "--with-backfill"}).status, 3);
    // Before the damage the read is whole.
    EXPECT_EQ(kelts({"read", dir(), "--type", "int", "--limit", "50"}).status, 0);
}

TEST_F(KeltsStatus, CheckFindsEverySeriesUnderARootAndReportsWhatItCannotRead)
{
    writeMonth(dir("plant/boiler1"));
    writeMonth(dir("plant/area2/pump"));
    write(dir("plant/area2/pump"), "double", "2024-05-01T00:00:00Z,1.5\n");
    const Outcome all = kelts({"check", dir("plant")});
    EXPECT_EQ(all.status, 0) << qPrintable(all.out + all.err);
    EXPECT_TRUE(all.out.contains("checked 3 series")) << qPrintable(all.out);
    EXPECT_FALSE(all.out.contains("not part of a series"));
    EXPECT_EQ(kelts({"check", dir("nothing-here")}).status, 2);
    QDir().mkpath(dir("empty"));
    EXPECT_EQ(kelts({"check", dir("empty")}).status, 1);

    openUp(dir("plant"));
    openUp(dir("plant/area2"));
    shutOut(dir("plant/boiler1"));
    const std::optional<Outcome> shut = keltsAsOtherUser({"check", dir("plant")});
    if (!shut)
        GTEST_SKIP() << "another user cannot start the tool from this build tree";
    EXPECT_EQ(shut->status, 1) << qPrintable(shut->out + shut->err);
    EXPECT_TRUE(shut->out.contains(dir("plant/boiler1") + ": cannot be read: Permission denied")) << qPrintable(shut->out);
    const std::optional<Outcome> series = keltsAsOtherUser({"check", dir("plant/boiler1")});
    EXPECT_EQ(series->status, 1);
    EXPECT_TRUE(series->out.contains("cannot be read")) << qPrintable(series->out);
}

TEST_F(KeltsStatus, AMethodThatStartsWithNoMethodNameIsRefusedUnlessPassedAsIs)
{
    writeMonth(dir());
    for (const char* method : {"mean", "avg", "average"}) {
        const Outcome r = kelts({"read", dir(), "--type", "int", "--method", method, "--interval", "1d"});
        EXPECT_EQ(r.status, 2) << method;
        EXPECT_TRUE(r.err.contains("did you mean meanA?")) << qPrintable(r.err);
        EXPECT_TRUE(r.out.isEmpty());
    }
    EXPECT_EQ(kelts({"count", dir(), "--type", "int", "--method", "xyz", "--interval", "1d"}).status, 2);
    const Outcome asIs = kelts({"read", dir(), "--type", "int", "--method", "mean", "--interval", "1d", "--method-as-is"});
    EXPECT_EQ(asIs.status, 0) << qPrintable(asIs.err);
    EXPECT_EQ(lines(asIs.out),
              lines(kelts({"read", dir(), "--type", "int", "--method", "prevNextLinearFill", "--interval", "1d"}).out));
}

TEST_F(KeltsStatus, AWriteThatFailsSaysWhatWasStoredAndWhy)
{
    // A file-size limit stops the write part-way: the message counts what
    // the storage holds of it. The series' one file is already near the limit.
    const auto rows = [](int from, int n) {
        QByteArray csv;
        for (int i = from; i < from + n; ++i)
            csv += QByteArray::number(1714521600000LL + i * 1000LL) + ',' + QByteArray::number(i) + '\n';
        return csv;
    };
    write(dir(), "int", rows(0, 200000), {"--max-file-size", "100000000"});   // 1.8 MB
    QFile input(dir("input.csv"));
    ASSERT_TRUE(input.open(QIODevice::WriteOnly));
    input.write(rows(200000, 60000));   // 0.5 MB more; bash counts the limit in KiB
    input.close();
    const Outcome limited = keltsInShell(
        QStringLiteral("ulimit -f 2000; \"$KELTS\" write %1 --type int --max-file-size 100000000 < %2").arg(dir(), input.fileName()));
    EXPECT_EQ(limited.status, 2);
    const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("([0-9,]+) new records were stored")).match(limited.err);
    ASSERT_TRUE(m.hasMatch()) << qPrintable(limited.err);
    const long long stored = kelts({"count", dir(), "--type", "int"}).out.trimmed().toLongLong();
    EXPECT_EQ(m.captured(1).remove(u',').toLongLong(), stored - 200000);
    EXPECT_GT(stored, 200000);
    EXPECT_LT(stored, 260000);
    EXPECT_TRUE(limited.err.contains("File too large")) << qPrintable(limited.err);

    // A directory the writer may not change is named before anything is
    // tried: no retried opens.
    writeMonth(dir("closed"));
    openUp(dir("closed"));
    const QString before = kelts({"read", dir("closed"), "--type", "int"}).out;
    const std::optional<Outcome> refused =
        keltsAsOtherUser({"write", dir("closed"), "--type", "int"}, "2024-05-01T00:30:00Z,1\n");
    if (!refused)
        GTEST_SKIP() << "another user cannot start the tool from this build tree";
    EXPECT_EQ(refused->status, 2);
    EXPECT_TRUE(refused->err.contains("cannot write into " + dir("closed"))) << qPrintable(refused->err);
    EXPECT_FALSE(refused->err.contains("attempt")) << qPrintable(refused->err);
    EXPECT_EQ(kelts({"read", dir("closed"), "--type", "int"}).out, before);
}

TEST_F(KeltsStatus, VersionNamesTheLibrarysVersion)
{
    const Outcome v = kelts({"--version"});
    EXPECT_EQ(v.status, 0);
    EXPECT_TRUE(v.out.startsWith("kelts 2.")) << qPrintable(v.out);
}

} // namespace
