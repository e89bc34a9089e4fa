// TSFileStorage: one time series of one value type, kept as headerless files
// of fixed-length records in a date-structured tree under one directory.
//
// It writes batches in any order (appending, inserting, overwriting in place
// with a log of the replaced values), reads ranges raw or through the
// interpolation engine, finds single records, counts and deletes ranges, and
// keeps two companion series: "P", the log of back-filled timestamps, and
// "O", the values that overwrites replaced. The object holds no file open
// between calls, starts no thread, takes no lock and throws nothing: failures
// are logged through Kel::Logger and reported by the results.
#pragma once

#include "Interpolate.h"
#include "KelTSFileStorageGlobal.h"
#include "TSDirControl.h"
#include "TSFileInfo.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QMetaType>
#include <QString>
#include <QVariant>

#include <unordered_map>
#include <vector>

namespace Kel {

class KELTS_EXPORT TSFileStorage : public TSDirControl {
public:
    // Range bounds with a meaning of their own.
    static constexpr long long TS_NOW = -1;
    static constexpr long long TS_FIRST_RECORD = -2;
    static constexpr long long TS_LAST_RECORD = -3;

    using DataRecord = Interpolate::DataRecord;
    using InterpolateParam = Interpolate::InterpolateParam;

    // The series' files live under dir + marker of valueType + "/". Creates
    // no directory and touches no file.
    TSFileStorage(QString dir, QMetaType::Type valueType, int maxFileSize);
    ~TSFileStorage();

    // The storage object
    void checkDirectory(QDir d);
    bool openFile(QFile& file, QFlags<QIODeviceBase::OpenModeFlag> mode);
    void checkValidInterval(long long& interval, QString marker);
    // This storage ("" marker, when its directory exists), a new companion
    // storage for "P" or "O" when its directory exists (the caller deletes
    // it), or null.
    TSFileStorage* getReadFilestorageForMarker(QString marker);
    QString getMarkerForValueType(QMetaType::Type type);
    int getDataLengthForValueType(QMetaType::Type type);
    int getDataLengthForTimestampOffset(TSFileInfo::DirDepth depth);
    // The bytes one record takes in a file of this depth: the offset width
    // plus the data length, except for Float, whose values take 8 bytes.
    int getStoredRecordLength(TSFileInfo::DirDepth depth);

    // The record format: single records through a QDataStream (version 19)
    void writeDataRecord(QDataStream& stream, Interpolate::DataRecord rec, long long baseTs,
                         TSFileInfo::DirDepth depth);
    long long readCurrTsOffset(QDataStream& stream, TSFileInfo::DirDepth depth);
    Interpolate::DataRecord readCurrDataRecord(QDataStream& stream, long long baseTs,
                                               TSFileInfo::DirDepth depth);
    Interpolate::DataRecord readLastDataRecord(QDataStream& stream, long long fileSize,
                                               long long baseTs, TSFileInfo::DirDepth depth);
    long long seekToTsOffsetPos(QDataStream& stream, long long fileSize, long long tsOffset,
                                int tsOffsetLength, TSFileInfo::DirDepth depth);

    // Writing
    bool writeDataRecords(std::vector<Interpolate::DataRecord> records, bool collectBackfill,
                          bool collectOverwritten);
    bool writeDataRecordsInt(std::vector<Interpolate::DataRecord> records, bool collectBackfill,
                             bool collectOverwritten, bool appendOnly);

    // Reading and counting
    bool readDataRecords(Interpolate::InterpolateParam param,
                         std::vector<Interpolate::InterpolateParam> params, long long start,
                         long long end, std::vector<Interpolate::DataRecord>& out,
                         bool labelAtIntervalStart, int& resultCount,
                         std::vector<Interpolate::DataRecord>* pRecords = nullptr,
                         std::unordered_map<long long, QVariant>* oMap = nullptr);
    bool readDataRecordsInt(Interpolate::InterpolateParam param,
                            std::vector<Interpolate::InterpolateParam> params, long long start,
                            long long end, std::vector<Interpolate::DataRecord>& out,
                            bool labelAtIntervalStart, int& resultCount, QString marker,
                            bool lastFlag);
    long long getCount(Interpolate::InterpolateParam param,
                       std::vector<Interpolate::InterpolateParam> params, long long start,
                       long long end, bool own, bool withP, bool withO);
    long long getCountInt(Interpolate::InterpolateParam param,
                          std::vector<Interpolate::InterpolateParam> params, long long start,
                          long long end, QString marker);

    // Point lookups
    bool getFirstDataRecord(Interpolate::DataRecord& rec);
    bool getLastDataRecord(Interpolate::DataRecord& rec);
    bool findDataRecord(long long ts, Interpolate::DataRecord& rec);
    bool findPrevDataRecord(long long ts, Interpolate::DataRecord& rec);
    bool adjustTimestamps(TSFileStorage* storage, long long& start, long long& end,
                          bool& coversFirst, bool& coversLast);

    // Deleting
    bool deleteDataRecords(long long start, long long end, QString marker);
    bool deleteDataRecords(long long start, long long end);

    // File maintenance
    bool checkMaxFileSize(QFile* file, TSFileInfo info);
    void reorgVarFile(QFile* file, TSFileInfo info);

    // Fields, in this order.
    QString dir;
    QMetaType::Type valueType;
    int dataLength;
    int maxFileSize;
    int tsOffsetLengths[5];
};

} // namespace Kel
