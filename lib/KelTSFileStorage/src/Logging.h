// Where the library's log lines come from. Every message goes through
// Kel::Logger with the source name of the part of the library that raised it.
#pragma once

#include "KelLogger.h"

#include <exception>

namespace Kel::detail {

inline constexpr const char* kStorageSource = "lib/KelTSFileStorage/src/TSFileStorage";
inline constexpr const char* kEngineSource = "lib/KelTSFileStorage/src/Interpolate";
inline constexpr const char* kFileInfoSource = "lib/KelTSFileStorage/src/TSFileInfo";

enum LogLevel : unsigned char { LOG_FAILURE = 2, LOG_WARNING = 4, LOG_PROGRESS = 7 };

inline LogMessage storageLog(unsigned char level, const QString& message, int line)
{
    return Logger::instance().out(level, message, kStorageSource, line);
}

inline LogMessage engineLog(unsigned char level, const QString& message, int line)
{
    return Logger::instance().out(level, message, kEngineSource, line);
}

} // namespace Kel::detail

namespace Kel::detail {

// Logs the exception being handled at an entry point of the storage, which
// hands back its failure result instead of letting the exception out. Call
// it only from inside a catch block.
inline void logCaughtException(const char* operation)
{
    QString what = QStringLiteral("unknown exception");
    try {
        throw;
    } catch (const std::exception& e) {
        what = QString::fromLocal8Bit(e.what());
    } catch (...) {
    }
    storageLog(LOG_FAILURE, QStringLiteral("Exception in %1: '%2'"), __LINE__)
        .arg(QString::fromLatin1(operation))
        .arg(what)
        .endl();
}

} // namespace Kel::detail
