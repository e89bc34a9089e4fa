// The storage object of one series: where its files live, how files are
// opened (with retries, for files that another process holds for a moment),
// and the companion storages "P" and "O" of the series.

#include "TSFileStorage.h"

#include "Logging.h"
#include "PathKind.h"
#include "RecordCodec.h"
#include "StorageNames.h"

#include <QThread>

namespace Kel {

namespace {

QString withSlash(const QString& path)
{
    return path.endsWith(u'/') ? path : path + u'/';
}

QString openModeText(QIODeviceBase::OpenMode mode)
{
    static const std::pair<QIODeviceBase::OpenModeFlag, const char*> names[] = {
        {QIODeviceBase::ReadOnly, "Read,"},         {QIODeviceBase::WriteOnly, "Write,"},
        {QIODeviceBase::Append, "Append,"},         {QIODeviceBase::Truncate, "Truncate,"},
        {QIODeviceBase::Text, "Text,"},             {QIODeviceBase::Unbuffered, "Unbuffered,"},
        {QIODeviceBase::NewOnly, "NewOnly,"},       {QIODeviceBase::ExistingOnly, "ExistingOnly,"},
    };
    QString text;
    for (const auto& [flag, name] : names)
        if (mode.testFlag(flag))
            text += QLatin1String(name);
    return text;
}

constexpr int kOpenAttempts = 6;

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
    for (int attempt = 1;; ++attempt) {
        if (file.open(mode))
            return true;
        detail::storageLog(detail::LOG_WARNING,
                           QStringLiteral("File open failed (%1) on '%2', attempt %3"), 140)
            .arg(openModeText(mode))
            .arg(file.fileName())
            .arg(attempt)
            .endl();
        if (attempt == kOpenAttempts)
            return false;
        QThread::sleep(1);
    }
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
