// Names of the alarm change-logs of the host's database engine. This library
// does not read them; it exports them because the host's modules expect to
// find these symbols in it.
#pragma once

#include "KelTSFileStorageGlobal.h"

#include <QString>

class KELTS_EXPORT DbEngineAbstract {
public:
    inline static const QString CHANGELOG_NAME_HIST_ALARM = QStringLiteral("Alarm.Historical");
    inline static const QString CHANGELOG_NAME_CURRENT_ALARMS = QStringLiteral("Alarm.Current");
};
