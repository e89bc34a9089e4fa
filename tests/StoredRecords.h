// Every record of a series as its files hold them, read from the start of
// each file by the bytes each record takes: what the format's sequential
// read gives. Float lookups step by the declared record length and answer
// with other bytes, so checks of what a Float series stores read it so.
#pragma once

#include "TSFileStorage.h"

#include <QDataStream>
#include <QFile>

#include <vector>

namespace Kel::test {

inline std::vector<Interpolate::DataRecord> storedRecords(TSFileStorage& series)
{
    std::vector<Interpolate::DataRecord> out;
    for (TSFileInfo info = series.findFirstFile(); info.found(); info = series.findNextFile(info)) {
        QFile file(info.filePath());
        if (!file.open(QIODevice::ReadOnly))
            continue;
        QDataStream stream(&file);
        stream.setVersion(QDataStream::Qt_5_13);
        const TSFileInfo::DirDepth depth = info.getDirDepth();
        for (qint64 n = file.size() / series.getStoredRecordLength(depth); n > 0; --n)
            out.push_back(series.readCurrDataRecord(stream, info.getBaseTsMs(), depth));
    }
    return out;
}

} // namespace Kel::test
