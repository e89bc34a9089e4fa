// Templates: named, ready-made requests kept in JSON files of the
// installation and of the current project. A template sets the primary
// request and may bring a chain of normalisation steps that run before it.
//
// The files are read afresh on every call. Entries of the same name are all
// applied in file order, so a later file overrides the keys it carries.

#include "Interpolate.h"

#include "Logging.h"

#include <QFile>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>

namespace Kel {

namespace {

// The environment variables are expected to end with a slash.
QStringList templateFilePaths()
{
    const QString install = qEnvironmentVariable("VANTIK_INSTALL_PATH");
    const QString project = qEnvironmentVariable("VANTIK_CURRENT_PROJECT_LOCATION");
    return {
        install + QLatin1String("cfg/dms/InterpolateTemplates.json"),
        install + QLatin1String("cfg/dms/InterpolateTemplates_User.json"),
        install + QLatin1String("proj/_ProcessManager/cfg/InterpolateTemplates_User.json"),
        project + QLatin1String("cfg/InterpolateTemplates_User.json"),
    };
}

void appendEntriesOf(const QString& path, QJsonArray& entries)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError) {
        detail::engineLog(detail::LOG_WARNING,
                          QStringLiteral("Interpolate template: Parse error on '%1': '%2' at offset %3"), __LINE__)
            .arg(path)
            .arg(error.errorString())
            .arg(error.offset)
            .endl();
        return;
    }
    if (!doc.isArray())
        return;
    for (const QJsonValue& entry : doc.array())
        entries.append(entry);
}

void applyPrimary(const QJsonObject& o, Interpolate::InterpolateParam& param, int defaultOffset)
{
    if (o.contains(QLatin1String("method")))
        param.method = o.value(QLatin1String("method")).toString();
    if (o.contains(QLatin1String("interval")))
        param.interval = o.value(QLatin1String("interval")).toInteger(0);
    if (o.contains(QLatin1String("alignStartEndTimestamp")))
        param.alignStartEndTimestamp = o.value(QLatin1String("alignStartEndTimestamp")).toBool(false);
    param.offsetMinFromUTC = o.value(QLatin1String("offsetMinFromUTC")).toInt(defaultOffset);
    const QJsonValue filters = o.value(QLatin1String("filterParams"));
    if (filters.isArray())
        Interpolate::parseFilterparams(filters.toArray(), param);
}

// A normalisation step takes its defaults for every key it leaves out; the
// default interval 900 is meant as written.
Interpolate::InterpolateParam normalisationStepOf(const QJsonObject& o, int defaultOffset)
{
    Interpolate::InterpolateParam step;
    step.method = o.value(QLatin1String("method")).toString(QStringLiteral("prevNextLinearFill"));
    step.interval = o.value(QLatin1String("interval")).toInteger(900);
    step.alignStartEndTimestamp = o.value(QLatin1String("alignStartEndTimestamp")).toBool(false);
    step.offsetMinFromUTC = o.value(QLatin1String("offsetMinFromUTC")).toInt(defaultOffset);
    const QJsonValue filters = o.value(QLatin1String("filterParams"));
    if (filters.isArray())
        Interpolate::parseFilterparams(filters.toArray(), step);
    return step;
}

} // namespace

QJsonDocument Interpolate::loadTemplates()
{
    QJsonArray entries;
    for (const QString& path : templateFilePaths())
        appendEntriesOf(path, entries);
    return QJsonDocument(entries);
}

QString Interpolate::getTemplates()
{
    return QString::fromUtf8(loadTemplates().toJson(QJsonDocument::Compact));
}

void Interpolate::loadTemplateParams(QString name, InterpolateParam& param, std::vector<InterpolateParam>& params,
                                     int defaultOffsetMinFromUTC)
{
    if (name.startsWith(u'!'))
        name.remove(0, 1);
    const QJsonArray entries = loadTemplates().array();
    for (const QJsonValue& entry : entries) {
        const QJsonObject t = entry.toObject();
        const QJsonValue entryName = t.value(QLatin1String("name"));
        if (!entryName.isString() || entryName.toString() != name)
            continue;
        const QJsonValue primary = t.value(QLatin1String("interpolateParam"));
        if (primary.isObject())
            applyPrimary(primary.toObject(), param, defaultOffsetMinFromUTC);
        const QJsonValue steps = t.value(QLatin1String("normalizeParams"));
        if (steps.isArray()) {
            params.clear();
            for (const QJsonValue& step : steps.toArray())
                params.push_back(normalisationStepOf(step.toObject(), defaultOffsetMinFromUTC));
        }
    }
}

} // namespace Kel
