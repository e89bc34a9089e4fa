// Naming the series under a served root.

#include "ServedSeries.h"

#include "Series.h"
#include "ValueText.h"

#include "RecordCodec.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace kelts {

namespace {

// A directory name as a Graphite segment: a dot would split it.
QString segmentOf(const QString& name)
{
    QString s = name;
    return s.replace(u'.', u'_');
}

bool inside(const QString& path, const QString& canonicalRoot)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    return !canonical.isEmpty() && (canonical == canonicalRoot || canonical.startsWith(canonicalRoot + u'/'));
}

} // namespace

std::vector<ServedSeries> servedSeries(const QString& root)
{
    const QString cleanRoot = QDir::cleanPath(root);
    const QString canonicalRoot = QFileInfo(cleanRoot).canonicalFilePath();
    QStringList unreadable;
    std::vector<ServedSeries> out;
    for (const QString& dir : seriesUnder(cleanRoot, unreadable)) {
        if (!inside(dir, canonicalRoot))
            continue;
        QStringList segments;
        if (dir != cleanRoot)
            for (const QString& part : dir.mid(cleanRoot.size() + 1).split(u'/'))
                segments << segmentOf(part);
        const QStringList markers = markersIn(dir);
        for (const QString& marker : markers) {
            if (!inside(dir + u'/' + marker, canonicalRoot))
                continue;
            const QMetaType::Type type = representativeType(marker);
            QStringList name = segments;
            if (markers.size() > 1 || name.isEmpty())
                name << valueTypeName(type);
            out.push_back({name.join(u'.'), dir, type, !Kel::detail::isVariableType(type)});
        }
    }
    std::sort(out.begin(), out.end(), [](const ServedSeries& a, const ServedSeries& b) { return a.name < b.name; });
    return out;
}

const ServedSeries* seriesNamed(const std::vector<ServedSeries>& all, const QString& name)
{
    const auto it = std::lower_bound(all.begin(), all.end(), name,
                                     [](const ServedSeries& s, const QString& n) { return s.name < n; });
    return it != all.end() && it->name == name ? &*it : nullptr;
}

} // namespace kelts
