// TSDirControl: the date-structured directory tree of one series. It names
// the entries of the tree and finds files by timestamp and in time order; it
// only looks at names and keeps no state between calls.
#pragma once

#include "KelTSFileStorageGlobal.h"
#include "TSFileInfo.h"

#include <Poco/DateTime.h>

#include <QString>

namespace Kel {

class KELTS_EXPORT TSDirControl {
public:
    // baseDir is normalised: backslashes become "/", a trailing "/" is added.
    explicit TSDirControl(QString baseDir);
    ~TSDirControl();

    // The name of the tree entry at the given level for the given instant:
    // 4-digit year, 2-digit month, day, hour or minute (the year for any
    // other depth).
    QString getFileNameForDepth(Poco::DateTime dateTime, TSFileInfo::DirDepth depth);

    // The file whose period holds the timestamp; when there is none, a
    // not-found info naming the path where the tree first lacks an entry.
    TSFileInfo findFile(long long timestampMs);

    // The earliest (first true) or latest storage file; empty info for none.
    TSFileInfo findFirstLastFile(bool first);
    TSFileInfo findFirstFile();
    TSFileInfo findLastFile();

    // The storage file just before (prev true) or after the given file's
    // period; empty info for none.
    TSFileInfo findPrevNextFile(TSFileInfo file, bool prev);
    TSFileInfo findPrevFile(TSFileInfo file);
    TSFileInfo findNextFile(TSFileInfo file);

    QString baseDir;
};

} // namespace Kel
