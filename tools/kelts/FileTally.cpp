// Counting a series' files by walking them with the tree finders.

#include "FileTally.h"

#include "Terminal.h"
#include "StorageNames.h"

#include <QFileInfo>
#include <QStringList>

#include <climits>

namespace kelts {

namespace {

const char* const kDepthNames[] = {"year", "month", "day", "hour", "minute"};

QString counted(long long n, const QString& what)
{
    return QStringLiteral("%1 %2%3").arg(grouped(n), what, n == 1 ? QString() : QStringLiteral("s"));
}

} // namespace

FileTally tallyFiles(Kel::TSFileStorage& storage)
{
    FileTally t;
    long long previousBase = LLONG_MIN;
    for (Kel::TSFileInfo info = storage.findFirstFile(); info.found(); info = storage.findNextFile(info)) {
        const long long base = info.getBaseTsMs();
        if (base <= previousBase)   // a damaged tree: check tells more
            break;
        previousBase = base;
        const int depth = int(info.getDirDepth());
        if (depth >= 0 && depth < 5)
            ++t.filesByDepth[depth];
        ++t.files;
        t.bytes += info.size();
        const QFileInfo side(Kel::detail::names::sideFile(info.filePath()));
        if (side.isFile()) {
            ++t.sideFiles;
            t.bytes += side.size();
        }
    }
    return t;
}

QString describeFiles(const FileTally& t)
{
    QStringList parts;
    for (int d = 0; d < 5; ++d)
        if (t.filesByDepth[d] > 0)
            parts << counted(t.filesByDepth[d], QLatin1String(kDepthNames[d]) + QStringLiteral(" file"));
    if (t.sideFiles > 0)
        parts << counted(t.sideFiles, QStringLiteral("side file"));
    return parts.isEmpty() ? QStringLiteral("none") : parts.join(QStringLiteral(", "));
}

QString describeBytes(long long bytes, bool brief)
{
    const QString size = textLocale().formattedDataSize(bytes, 1, QLocale::DataSizeIecFormat);
    if (bytes < 1024)
        return size;
    return brief ? size : QStringLiteral("%1 bytes (%2)").arg(grouped(bytes), size);
}

} // namespace kelts
