// Templates: the merged list of the template files and the lookup of a named
// template into the primary request and its normalisation chain.
#include "EngineHarness.h"

#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using Kel::Interpolate;
using namespace Kel::test;

namespace {

// A request as "method interval [align] offset [days .. months ..]...".
std::string shown(const Interpolate::InterpolateParam& p)
{
    QString text = QStringLiteral("%1 %2%3 %4")
                       .arg(p.method)
                       .arg(p.interval)
                       .arg(p.alignStartEndTimestamp ? " align" : "")
                       .arg(p.offsetMinFromUTC);
    for (const Interpolate::FilterParam& f : p.filterParams) {
        QStringList days, months;
        for (int d : f.weekDays)
            days << QString::number(d);
        for (int m : f.months)
            months << QString::number(m);
        text += QStringLiteral(" [days %1 months %2]").arg(days.join(u','), months.join(u','));
    }
    return text.toStdString();
}

class Templates : public ::testing::Test {
protected:
    QString installFile() const { return install.filePath("cfg/dms/InterpolateTemplates.json"); }
    QString projectFile() const { return project.filePath("cfg/InterpolateTemplates_User.json"); }

    // Looks a template up into a request and chain that hold the caller's values.
    void lookUp(const char* name, int defaultOffset = 30)
    {
        param = request("callers", 77);
        param.offsetMinFromUTC = -5;
        chain = {request("callersStep", 0)};
        Interpolate::loadTemplateParams(QString::fromUtf8(name), param, chain, defaultOffset);
    }

    QTemporaryDir install;
    QTemporaryDir project;
    ScopedEnv installPath{"VANTIK_INSTALL_PATH", (install.path() + '/').toUtf8()};
    ScopedEnv projectPath{"VANTIK_CURRENT_PROJECT_LOCATION", (project.path() + '/').toUtf8()};
    Interpolate::InterpolateParam param;
    std::vector<Interpolate::InterpolateParam> chain;
};

TEST_F(Templates, AllFilesAreMergedInTheirOrderAndReadAfreshEachTime)
{
    EXPECT_EQ(Interpolate::getTemplates(), QStringLiteral("[]"));
    writeBytes(installFile(), R"([{"name":"a"},{"name":"b"}])");
    writeBytes(install.filePath("cfg/dms/InterpolateTemplates_User.json"), R"([{"name":"c"}])");
    writeBytes(install.filePath("proj/_ProcessManager/cfg/InterpolateTemplates_User.json"), R"([{"name":"d"}])");
    writeBytes(projectFile(), R"([{"name":"e"}])");
    EXPECT_EQ(Interpolate::getTemplates(),
              QStringLiteral(R"([{"name":"a"},{"name":"b"},{"name":"c"},{"name":"d"},{"name":"e"}])"));

    // Without a trailing slash a variable names no file.
    installPath.set(install.path().toUtf8());
    EXPECT_EQ(Interpolate::getTemplates(), QStringLiteral(R"([{"name":"e"}])"));
}

TEST_F(Templates, BrokenFileIsLoggedAndSkippedAndAnObjectFileSkippedSilently)
{
    LogCapture log;
    writeBytes(installFile(), R"([{"name":"a"},)");
    writeBytes(install.filePath("cfg/dms/InterpolateTemplates_User.json"), R"({"name":"b"})");
    writeBytes(projectFile(), R"([{"name":"c"}])");
    EXPECT_EQ(Interpolate::getTemplates(), QStringLiteral(R"([{"name":"c"}])"));
    ASSERT_EQ(log.entries.size(), 1u);
    EXPECT_EQ(log.entries[0].level, 4);
    EXPECT_TRUE(log.entries[0].message.contains(QRegularExpression(
        "^Interpolate template: Parse error on '" + QRegularExpression::escape(installFile()) + "': '.+' at offset \\d+$")))
        << log.entries[0].message.toStdString();
}

TEST_F(Templates, TemplateFillsTheRequestAndItsChain)
{
    writeBytes(installFile(), R"([{"name":"Daily","interpolateParam":{"method":"meanA","interval":-1,
        "alignStartEndTimestamp":true,"offsetMinFromUTC":60,"filterParams":[{"weekDays":[1]}]},
        "normalizeParams":[{"method":"prev","interval":60,"alignStartEndTimestamp":true,"offsetMinFromUTC":-60,
                            "filterParams":[{"months":[2]}]},{},7]}])");
    lookUp("Daily");
    EXPECT_EQ(shown(param), "meanA -1 align 60 [days 1 months ]");
    ASSERT_EQ(chain.size(), 3u);
    EXPECT_EQ(shown(chain[0]), "prev 60 align -60 [days  months 2]");
    // {} and a step that is no object take every default.
    EXPECT_EQ(shown(chain[1]), "prevNextLinearFill 900 30");
    EXPECT_EQ(shown(chain[2]), "prevNextLinearFill 900 30");
}

TEST_F(Templates, KeysLeftOutKeepTheCallersValuesExceptTheOffsetAndWrongTypesTakeDefaults)
{
    writeBytes(installFile(), R"([{"name":"Daily","interpolateParam":{"interval":1.5,"alignStartEndTimestamp":"yes",
        "offsetMinFromUTC":"60","filterParams":{"months":[1]}},
        "normalizeParams":[{"method":5,"interval":"x","offsetMinFromUTC":2.5}]}])");
    lookUp("Daily");
    EXPECT_EQ(shown(param), "callers 0 30");
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(shown(chain[0]), "prevNextLinearFill 900 30");
}

TEST_F(Templates, LaterFilesOverrideTheKeysTheyCarryAndNamesMatchExactly)
{
    writeBytes(installFile(), R"([{"name":"Daily","interpolateParam":{"method":"meanA","interval":-1,
        "offsetMinFromUTC":60},"normalizeParams":[{"method":"prev"}]}])");
    writeBytes(projectFile(), R"([{"name":"Daily","interpolateParam":{"method":"max"}},{"name":"Other","normalizeParams":[]}])");
    lookUp("Daily");
    // Left out by the later entry: the offset takes the caller's default.
    EXPECT_EQ(shown(param), "max -1 30");
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(shown(chain[0]), "prev 900 30");
    lookUp("Other");
    EXPECT_TRUE(chain.empty());

    // Names match exactly after a "!"; a name that matches none leaves the
    // caller's request and chain as they were.
    lookUp("!Daily");
    EXPECT_EQ(shown(param), "max -1 30");
    lookUp("daily");
    EXPECT_EQ(shown(param), "callers 77 -5");
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(shown(chain[0]), "callersStep 0 0");
}

} // namespace
