// Where the library's log lines come from. Every message goes through
// Kel::Logger with the source name of the part of the library that raised it.
#pragma once

#include "KelLogger.h"

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
