// Templates: the merged list of the template files and the lookup of a named
// template into the primary request and its normalisation chain.
#include "EngineHarness.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using Kel::Interpolate;
using Kel::test::LogCapture;

namespace {

class Templates : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(install.isValid());
        ASSERT_TRUE(project.isValid());
        saveAndSet("VANTIK_INSTALL_PATH", install.path() + u'/', savedInstall, hadInstall);
        saveAndSet("VANTIK_CURRENT_PROJECT_LOCATION", project.path() + u'/', savedProject, hadProject);
    }

    void TearDown() override
    {
        restore("VANTIK_INSTALL_PATH", savedInstall, hadInstall);
        restore("VANTIK_CURRENT_PROJECT_LOCATION", savedProject, hadProject);
    }

    static void saveAndSet(const char* name, const QString& value, QByteArray& saved, bool& had)
    {
        had = qEnvironmentVariableIsSet(name);
        saved = qgetenv(name);
        qputenv(name, value.toUtf8());
    }

    static void restore(const char* name, const QByteArray& saved, bool had)
    {
        if (had)
            qputenv(name, saved);
        else
            qunsetenv(name);
    }

    void installFile(const char* json) { Kel::test::writeBytes(install.filePath("cfg/dms/InterpolateTemplates.json"), json); }
    void installUserFile(const char* json)
    {
        Kel::test::writeBytes(install.filePath("cfg/dms/InterpolateTemplates_User.json"), json);
    }
    void processManagerFile(const char* json)
    {
        Kel::test::writeBytes(install.filePath("proj/_ProcessManager/cfg/InterpolateTemplates_User.json"), json);
    }
    void projectFile(const char* json)
    {
        Kel::test::writeBytes(project.filePath("cfg/InterpolateTemplates_User.json"), json);
    }

    // Looks a template up into a request and chain that hold recognisable values.
    void lookUp(const char* name, int defaultOffset = 30)
    {
        param = Interpolate::InterpolateParam{};
        param.method = QStringLiteral("callersMethod");
        param.interval = 77;
        param.offsetMinFromUTC = -5;
        chain = {Interpolate::InterpolateParam{}};
        chain[0].method = QStringLiteral("callersStep");
        Interpolate::loadTemplateParams(QString::fromUtf8(name), param, chain, defaultOffset);
    }

    QTemporaryDir install;
    QTemporaryDir project;
    QByteArray savedInstall;
    QByteArray savedProject;
    bool hadInstall = false;
    bool hadProject = false;
    Interpolate::InterpolateParam param;
    std::vector<Interpolate::InterpolateParam> chain;
};

TEST_F(Templates, AllFilesAreMergedInTheirOrder)
{
    installFile(R"([{"name":"a"},{"name":"b"}])");
    installUserFile(R"([{"name":"c"}])");
    processManagerFile(R"([{"name":"d"}])");
    projectFile(R"([{"name":"e"}])");

    const QJsonArray all = Interpolate::loadTemplates().array();
    QStringList names;
    for (const QJsonValue& v : all)
        names << v.toObject().value(QStringLiteral("name")).toString();
    EXPECT_EQ(names, (QStringList{"a", "b", "c", "d", "e"}));
    EXPECT_EQ(Interpolate::getTemplates(),
              QStringLiteral(R"([{"name":"a"},{"name":"b"},{"name":"c"},{"name":"d"},{"name":"e"}])"));
}

TEST_F(Templates, BrokenFileIsLoggedAndSkippedAndAnObjectFileIsSkippedSilently)
{
    LogCapture log;
    installFile(R"([{"name":"a"},)");
    installUserFile(R"({"name":"b"})");
    projectFile(R"([{"name":"c"}])");

    EXPECT_EQ(Interpolate::getTemplates(), QStringLiteral(R"([{"name":"c"}])"));
    ASSERT_EQ(log.entries.size(), 1u);
    EXPECT_EQ(log.entries[0].level, 4);
    EXPECT_EQ(log.entries[0].sourceFile, QStringLiteral("lib/KelTSFileStorage/src/Interpolate"));
    EXPECT_TRUE(log.entries[0].message.startsWith(QStringLiteral("Interpolate template: Parse error on '")
                                                  + install.filePath("cfg/dms/InterpolateTemplates.json") + "': '"))
        << log.entries[0].message.toStdString();
    EXPECT_TRUE(log.entries[0].message.contains(QRegularExpression("' at offset \\d+$")));
}

TEST_F(Templates, PrimaryRequestAndChainAreFilledFromTheTemplate)
{
    installFile(R"([{"name":"Daily","interpolateParam":{"method":"meanA","interval":-1,
        "alignStartEndTimestamp":true,"offsetMinFromUTC":60,"filterParams":[{"weekDays":[1]}]},
        "normalizeParams":[{"method":"prev","interval":60,"alignStartEndTimestamp":true,"offsetMinFromUTC":-60,
                            "filterParams":[{"months":[2]}]},{}]}])");
    lookUp("Daily");

    EXPECT_EQ(param.method, QStringLiteral("meanA"));
    EXPECT_EQ(param.interval, -1);
    EXPECT_TRUE(param.alignStartEndTimestamp);
    EXPECT_EQ(param.offsetMinFromUTC, 60);
    ASSERT_EQ(param.filterParams.size(), 1u);
    EXPECT_EQ(param.filterParams[0].weekDays, (std::vector<int>{1}));

    ASSERT_EQ(chain.size(), 2u);
    EXPECT_EQ(chain[0].method, QStringLiteral("prev"));
    EXPECT_EQ(chain[0].interval, 60);
    EXPECT_TRUE(chain[0].alignStartEndTimestamp);
    EXPECT_EQ(chain[0].offsetMinFromUTC, -60);
    ASSERT_EQ(chain[0].filterParams.size(), 1u);
    EXPECT_EQ(chain[0].filterParams[0].months, (std::vector<int>{2}));
}

TEST_F(Templates, EmptyNormalisationStepTakesItsDefaults)
{
    installFile(R"([{"name":"Daily","normalizeParams":[{},7]}])");
    lookUp("Daily");
    ASSERT_EQ(chain.size(), 2u);
    for (const Interpolate::InterpolateParam& step : chain) {
        EXPECT_EQ(step.method, QStringLiteral("prevNextLinearFill"));
        EXPECT_EQ(step.interval, 900);
        EXPECT_FALSE(step.alignStartEndTimestamp);
        EXPECT_EQ(step.offsetMinFromUTC, 30);
        EXPECT_TRUE(step.filterParams.empty());
    }
}

TEST_F(Templates, KeysLeftOutKeepTheCallersValuesExceptTheOffset)
{
    installFile(R"([{"name":"Daily","interpolateParam":{"interval":3600}}])");
    lookUp("Daily", 30);
    EXPECT_EQ(param.method, QStringLiteral("callersMethod"));
    EXPECT_EQ(param.interval, 3600);
    EXPECT_EQ(param.offsetMinFromUTC, 30);
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].method, QStringLiteral("callersStep"));
}

TEST_F(Templates, WrongTypesFallBackToDefaults)
{
    installFile(R"([{"name":"Daily","interpolateParam":{"interval":1.5,"alignStartEndTimestamp":"yes",
        "offsetMinFromUTC":"60","filterParams":{"months":[1]}},
        "normalizeParams":[{"method":5,"interval":"x","offsetMinFromUTC":2.5}]}])");
    lookUp("Daily", 30);
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
    installFile(R"([{"name":"Daily","interpolateParam":{"method":"meanA","interval":-1,"offsetMinFromUTC":60},
        "normalizeParams":[{"method":"prev"}]}])");
    projectFile(R"([{"name":"Daily","interpolateParam":{"method":"max"}}])");
    lookUp("Daily", 30);
    EXPECT_EQ(param.method, QStringLiteral("max"));
    EXPECT_EQ(param.interval, -1);
    EXPECT_EQ(param.offsetMinFromUTC, 30);  // the later entry leaves it out: the caller's default
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_EQ(chain[0].method, QStringLiteral("prev"));
}

TEST_F(Templates, EmptyChainInTheTemplateEmptiesTheCallersChain)
{
    installFile(R"([{"name":"Daily","normalizeParams":[]}])");
    lookUp("Daily");
    EXPECT_TRUE(chain.empty());
}

TEST_F(Templates, NamesMatchExactlyAfterAnExclamationMark)
{
    installFile(R"([{"name":"Daily","interpolateParam":{"method":"meanA"}}])");
    lookUp("!Daily");
    EXPECT_EQ(param.method, QStringLiteral("meanA"));
    lookUp("daily");
    EXPECT_EQ(param.method, QStringLiteral("callersMethod"));
    EXPECT_EQ(param.interval, 77);
    EXPECT_EQ(param.offsetMinFromUTC, -5);
    ASSERT_EQ(chain.size(), 1u);
}

TEST_F(Templates, VariablesWithoutATrailingSlashFindNoFile)
{
    installFile(R"([{"name":"a"}])");
    qputenv("VANTIK_INSTALL_PATH", install.path().toUtf8());
    qputenv("VANTIK_CURRENT_PROJECT_LOCATION", project.path().toUtf8());
    EXPECT_EQ(Interpolate::getTemplates(), QStringLiteral("[]"));
}

TEST_F(Templates, FilesAreReadAfreshOnEveryCall)
{
    EXPECT_EQ(Interpolate::getTemplates(), QStringLiteral("[]"));
    projectFile(R"([{"name":"a"}])");
    EXPECT_EQ(Interpolate::getTemplates(), QStringLiteral(R"([{"name":"a"}])"));
}

} // namespace
