// Templates: the merged list of the template files and the lookup of a named
// template into the primary request and its normalisation chain.
#include "EngineHarness.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using Kel::Interpolate;
using Kel::test::LogCapture;
using Kel::test::writeBytes;

namespace {

class Templates : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(install.isValid() && project.isValid());
        for (const char* name : {"VANTIK_INSTALL_PATH", "VANTIK_CURRENT_PROJECT_LOCATION"})
            saved.push_back({name, qgetenv(name), qEnvironmentVariableIsSet(name)});
        qputenv("VANTIK_INSTALL_PATH", (install.path() + '/').toUtf8());
        qputenv("VANTIK_CURRENT_PROJECT_LOCATION", (project.path() + '/').toUtf8());
    }

    void TearDown() override
    {
        for (const Saved& s : saved) {
            if (s.wasSet)
                qputenv(s.name, s.value);
            else
                qunsetenv(s.name);
        }
    }

    QString installFile() const { return install.filePath("cfg/dms/InterpolateTemplates.json"); }
    QString projectFile() const { return project.filePath("cfg/InterpolateTemplates_User.json"); }

    // Looks a template up into a request and chain that hold the caller's values.
    void lookUp(const char* name, int defaultOffset = 30)
    {
        param = Interpolate::InterpolateParam{};
        param.method = QStringLiteral("callers");
        param.interval = 77;
        param.offsetMinFromUTC = -5;
        chain = {Interpolate::InterpolateParam{}};
        chain[0].method = QStringLiteral("callersStep");
        Interpolate::loadTemplateParams(QString::fromUtf8(name), param, chain, defaultOffset);
    }

    struct Saved {
        const char* name;
        QByteArray value;
        bool wasSet;
    };
    std::vector<Saved> saved;
    QTemporaryDir install;
    QTemporaryDir project;
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
    EXPECT_EQ(Interpolate::loadTemplates().array().size(), 5);
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
    EXPECT_EQ(param.method, QStringLiteral("meanA"));
    EXPECT_EQ(param.interval, -1);
    EXPECT_TRUE(param.alignStartEndTimestamp);
    EXPECT_EQ(param.offsetMinFromUTC, 60);
    ASSERT_EQ(param.filterParams.size(), 1u);
    EXPECT_EQ(param.filterParams[0].weekDays, (std::vector<int>{1}));

    ASSERT_EQ(chain.size(), 3u);
    EXPECT_EQ(chain[0].method, QStringLiteral("prev"));
    EXPECT_EQ(chain[0].interval, 60);
    EXPECT_TRUE(chain[0].alignStartEndTimestamp);
    EXPECT_EQ(chain[0].offsetMinFromUTC, -60);
    EXPECT_EQ(chain[0].filterParams.at(0).months, (std::vector<int>{2}));
    for (int i : {1, 2}) {  // {} and a step that is no object take every default
        EXPECT_EQ(chain[i].method, QStringLiteral("prevNextLinearFill"));
        EXPECT_EQ(chain[i].interval, 900);
        EXPECT_FALSE(chain[i].alignStartEndTimestamp);
        EXPECT_EQ(chain[i].offsetMinFromUTC, 30);
        EXPECT_TRUE(chain[i].filterParams.empty());
    }
}

TEST_F(Templates, KeysLeftOutKeepTheCallersValuesExceptTheOffsetAndWrongTypesTakeDefaults)
{
    writeBytes(installFile(), R"([{"name":"Daily","interpolateParam":{"interval":1.5,"alignStartEndTimestamp":"yes",
        "offsetMinFromUTC":"60","filterParams":{"months":[1]}},
        "normalizeParams":[{"method":5,"interval":"x","offsetMinFromUTC":2.5}]}])");
    lookUp("Daily");
    EXPECT_EQ(param.method, QStringLiteral("callers"));
    EXPECT_EQ(param.interval, 0);
    EXPECT_FALSE(param.alignStartEndTimestamp);
    EXPECT_EQ(param.offsetMinFromUTC, 30);
    EXPECT_TRUE(param.filterParams.empty());
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].method, QStringLiteral("prevNextLinearFill"));
    EXPECT_EQ(chain[0].interval, 900);
    EXPECT_EQ(chain[0].offsetMinFromUTC, 30);
}

TEST_F(Templates, LaterFilesOverrideTheKeysTheyCarry)
{
    writeBytes(installFile(), R"([{"name":"Daily","interpolateParam":{"method":"meanA","interval":-1,
        "offsetMinFromUTC":60},"normalizeParams":[{"method":"prev"}]}])");
    writeBytes(projectFile(), R"([{"name":"Daily","interpolateParam":{"method":"max"}},{"name":"Other","normalizeParams":[]}])");
    lookUp("Daily");
    EXPECT_EQ(param.method, QStringLiteral("max"));
    EXPECT_EQ(param.interval, -1);
    EXPECT_EQ(param.offsetMinFromUTC, 30);  // left out by the later entry: the caller's default
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].method, QStringLiteral("prev"));
    lookUp("Other");
    EXPECT_TRUE(chain.empty());
}

TEST_F(Templates, NamesMatchExactlyAfterAnExclamationMark)
{
    writeBytes(installFile(), R"([{"name":"Daily","interpolateParam":{"method":"meanA"}}])");
    lookUp("!Daily");
    EXPECT_EQ(param.method, QStringLiteral("meanA"));
    lookUp("daily");
    EXPECT_EQ(param.method, QStringLiteral("callers"));
    EXPECT_EQ(param.interval, 77);
    EXPECT_EQ(param.offsetMinFromUTC, -5);
    EXPECT_EQ(chain.size(), 1u);
}

TEST_F(Templates, VariablesWithoutATrailingSlashFindNoFile)
{
    writeBytes(installFile(), R"([{"name":"a"}])");
    qputenv("VANTIK_INSTALL_PATH", install.path().toUtf8());
    EXPECT_EQ(Interpolate::getTemplates(), QStringLiteral("[]"));
}

} // namespace
