// The series a server offers: every series under its root, named as
// Graphite names things, by the directories below the root joined with
// dots ("plant.boiler1"), with the value type as one more segment where a
// series holds several value directories ("plant.pump.int"). A request
// names a series by that name and the server looks the name up here: no
// path is ever built from a request, so nothing outside the root (no "..",
// no absolute path, no symbolic link leading out) can be reached.
#pragma once

#include <QMetaType>
#include <QString>

#include <vector>

namespace kelts {

struct ServedSeries {
    QString name;   // dotted
    QString dir;    // the series' directory
    QMetaType::Type type;
    bool numeric;   // drawn and condensed; text and JSON series are listed only
};

// Lists the series under root afresh, sorted by name; a series whose
// directory or value directory resolves outside the root is left out.
std::vector<ServedSeries> servedSeries(const QString& root);

// The series of that name, or null.
const ServedSeries* seriesNamed(const std::vector<ServedSeries>& all, const QString& name);

} // namespace kelts
