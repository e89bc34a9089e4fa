// TSFileInfo: one storage file of a series, with the place in the date tree
// that gives its period (year, month, day, hour or minute) and the start of
// that period. A value type: copies share Qt's implicitly shared data.
#pragma once

#include "KelTSFileStorageGlobal.h"

#include <QFileInfo>
#include <QString>

namespace Kel {

class KELTS_EXPORT TSFileInfo : public QFileInfo {
public:
    // How many date levels lie between the base directory and the file; also
    // the calendar unit that the file's own name holds.
    enum DirDepth { DEPTH_YEAR = 0, DEPTH_MONTH, DEPTH_DAY, DEPTH_HOUR, DEPTH_MINUTE };

    TSFileInfo();
    TSFileInfo(QFileInfo fileInfo, QString subDir);
    ~TSFileInfo();

    // True when the path exists and is a regular file.
    bool found() const;
    QString getSubDir() const;
    // The number of non-empty parts of subDir.
    DirDepth getDirDepth() const;
    // Start of the period the file covers, ms since the epoch (UTC); 0 with a
    // logged message when the path does not name a valid date.
    long long getBaseTsMs() const;
    // First instant after the period the file covers (base plus one unit of
    // its depth), ms since the epoch (UTC); 0 when the base is not a date.
    long long getPeriodEndTsMs() const;

    // Directory of the file relative to the base directory, each date
    // component followed by "/" (e.g. "2024/05/"); empty for the base level.
    QString subDir;
};

} // namespace Kel
