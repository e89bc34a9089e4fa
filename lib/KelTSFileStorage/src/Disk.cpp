// Opening with retries.

#include "Disk.h"

#include "Logging.h"

#include <QThread>

namespace Kel::detail {

namespace {

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

bool openRetrying(QFile& file, QIODevice::OpenMode mode)
{
    for (int attempt = 1;; ++attempt) {
        if (file.open(mode))
            return true;
        storageLog(LOG_WARNING, QStringLiteral("File open failed (%1) on '%2', attempt %3"), 140)
            .arg(openModeText(mode))
            .arg(file.fileName())
            .arg(attempt)
            .endl();
        if (attempt == kOpenAttempts)
            return false;
        QThread::sleep(1);
    }
}

} // namespace Kel::detail
