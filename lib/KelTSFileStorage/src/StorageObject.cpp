// The storage object of one series: where its files live, and the companion
// storages "P" and "O" of the series.

#include "TSFileStorage.h"

#include "Disk.h"
#include "Logging.h"
#include "PathKind.h"
#include "RecordCodec.h"
#include "StorageNames.h"

namespace Kel {

namespace {

QString withSlash(const QString& path)
{
    return path.endsWith(u'/') ? path : path + u'/';
}

} // namespace

TSFileStorage::TSFileStorage(QString dir, QMetaType::Type valueType, int maxFileSize)
    : TSDirControl(withSlash(dir) + detail::markerOf(valueType) + u'/'),
      dir(withSlash(dir)),
      valueType(valueType),
      dataLength(detail::dataLengthOf(valueType)),
      maxFileSize(maxFileSize),
      tsOffsetLengths{5, 4, 4, 3, 2}
{
}

TSFileStorage::~TSFileStorage() = default;

void TSFileStorage::checkDirectory(QDir d)
{
    if (!d.exists())
        d.mkpath(QStringLiteral("."));
}

bool TSFileStorage::openFile(QFile& file, QFlags<QIODeviceBase::OpenModeFlag> mode)
{
    return detail::openRetrying(file, mode);
}

void TSFileStorage::checkValidInterval(long long& interval, QString marker)
{
    if (interval == 0)
        return;
    if (!marker.isEmpty()) {
        interval = 0;
        return;
    }
    if (detail::isVariableType(valueType)) {
        detail::storageLog(detail::LOG_WARNING, QStringLiteral("No interval support for variant"),
                           677)
            .endl();
        interval = 0;
    }
}

TSFileStorage* TSFileStorage::getReadFilestorageForMarker(QString marker)
{
    if (marker.isEmpty())
        return detail::isDirectoryPath(baseDir) ? this : nullptr;

    const detail::names::Companion* companion = detail::names::companionOf(marker);
    if (!companion)
        return nullptr;
    const QString companionDir = detail::names::companionDir(baseDir, marker);
    if (!detail::isDirectoryPath(companionDir))
        return nullptr;
    return new TSFileStorage(companionDir, companion->type, maxFileSize);
}

} // namespace Kel
