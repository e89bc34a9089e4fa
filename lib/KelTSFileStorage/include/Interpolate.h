// Interpolate: the engine that condenses the raw records of one read into one
// value per interval (previous/next values, linear interpolation, minimum,
// maximum, sum, means, median, mode, count, and differences of counters).
//
// The storage's reader builds one engine per read, asks it which range to
// read (getRange), feeds it the raw records in time order through
// handleNextRawRecord and closes it with finalize. Results are appended to
// the caller's vector. An engine lives for one read and does no file I/O.
#pragma once

#include "KelTSFileStorageGlobal.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QTime>
#include <QVariant>

#include <deque>
#include <map>
#include <vector>

namespace Kel {

class KELTS_EXPORT Interpolate {
public:
    // One sample of a series: an instant (ms since 1970-01-01 UTC) and a value.
    struct DataRecord {
        long long timestamp = 0;
        QVariant value;
    };

    // One filter on month, weekday, time-of-day window and value. The tests of
    // one filter are all required; the filters of a list are alternatives.
    struct FilterParam {
        QTime timeStart;          // invalid: no time-of-day test
        QTime timeEnd;            // computed from timeStart + duration on first use
        long long duration = 0;   // window length in seconds
        std::vector<int> weekDays; // 1 = Monday .. 7 = Sunday; empty: every day
        std::vector<int> months;   // 1 .. 12; empty: every month
        QString valueCompare;     // "lt", "lte", "gt", "gte", "neq", else equality
        double value = 0.0;
    };

    // What a read asks for: the method string, the interval (seconds when
    // positive, 0 raw, negative calendar units), filters, range alignment and
    // the offset of calendar boundaries from UTC in minutes.
    struct InterpolateParam {
        QString method;
        long long interval = 0;
        std::vector<FilterParam> filterParams;
        bool alignStartEndTimestamp = false;
        int offsetMinFromUTC = 0;
    };

    enum InterpolateMethod : unsigned int {
        RAW = 0, PREV_NEXT, PREV, NEXT, MIN_MAX, MIN, MAX, SUM,
        MEAN_A, MEAN_G, MEAN_H, MEAN_S, MEDIAN, MODE, COUNT
    };

    using Handler = void (Interpolate::*)(DataRecord, long long);
    using DiffHandler = void (Interpolate::*)(DataRecord&, long long);

    Interpolate(InterpolateParam param, std::vector<InterpolateParam> furtherParams,
                long long rangeStart, long long rangeEnd,
                long long firstRecordTime, long long lastRecordTime,
                std::vector<DataRecord>* outputRecords, QMetaType::Type targetType,
                bool labelAtIntervalStart, int& resultCount, bool countOnly);
    virtual ~Interpolate();
    Interpolate(const Interpolate&) = delete;
    Interpolate& operator=(const Interpolate&) = delete;

    // Driver
    void initHandlers();
    bool handleNextRawRecord(DataRecord record);
    void pushIntervalValue(long long timestamp, double value, bool isNull);
    void finalize();
    void checkLimit();
    bool needsPreviousDataRecords();
    bool needsDataRecordAfterRangeEnd();
    // True when handle_raw would append every record of the aligned range to
    // the output unchanged, so that a reader may copy the records itself.
    bool passesRawRecordsThrough() const;

    // Intervals
    long long alignSpecialStartTimestamp(long long timestamp);
    void incTimestampByInterval(long long& timestamp);
    void decTimestampByInterval(long long& timestamp);
    void incIntervalNextTimestamp();
    bool getRange(long long& readStart, long long& readEnd);
    long long getFastCount();
    double linearInterpolate(long long time1, double value1, long long time,
                             long long time2, double value2);

    // Aggregation handlers
    void handle_raw(DataRecord record, long long ts);
    void handle_PREV_NEXT(DataRecord record, long long ts);
    void handle_PREV(DataRecord record, long long ts);
    void handle_NEXT(DataRecord record, long long ts);
    void handle_MIN_MAX(DataRecord record, long long ts);
    void handle_MIN(DataRecord record, long long ts);
    void handle_MAX(DataRecord record, long long ts);
    void handle_MINorMAX(DataRecord record, long long ts, bool isMin);
    void handle_SUM(DataRecord record, long long ts);
    void handle_MEAN_A(DataRecord record, long long ts);
    void handle_MEAN_G(DataRecord record, long long ts);
    void handle_MEAN_H(DataRecord record, long long ts);
    void handle_MEAN_S(DataRecord record, long long ts);
    void handle_MEDIAN(DataRecord record, long long ts);
    void handle_MODE(DataRecord record, long long ts);
    void handle_COUNT(DataRecord record, long long ts);

    // Differences
    void handle_DIFF(DataRecord& record, long long timestamp);
    void handle_DIFF_CTRUPCLEANED(DataRecord& record, long long timestamp);

    // Parameters and filters
    void interpolateParamsFromArgs(QString args, long long interval);
    static void parseFilterparams(QJsonArray filters, InterpolateParam& param);
    bool filterMatch(DataRecord record);

    // Templates
    static QJsonDocument loadTemplates();
    static QString getTemplates();
    static void loadTemplateParams(QString name, InterpolateParam& param,
                                   std::vector<InterpolateParam>& params,
                                   int defaultOffsetMinFromUTC);

    // Fields, in this order.
    InterpolateMethod method = RAW;
    long long intervalMs = 0;
    std::vector<FilterParam> filters;
    bool alignStartEndTimestamp = false;
    int offsetMinFromUTC = 0;
    std::vector<DataRecord>* outputRecords = nullptr;
    QMetaType::Type targetType = QMetaType::UnknownType;
    bool labelAtIntervalStart = false;
    int* resultCount = nullptr;
    int limit = 0;
    bool countOnly = false;
    bool linear = false;
    bool align = false;
    bool fill = false;
    bool fillNull = false;
    bool average = false;
    Interpolate* next = nullptr;
    Handler handler = nullptr;
    bool noPreviousRecords = false;
    bool noRecordAfterEnd = false;
    long long intervalStart = 0;
    long long intervalNext = 0;
    QDateTime now;
    long long rangeStart = 0;
    long long rangeEnd = 0;
    long long alignedStart = 0;
    long long alignedEnd = 0;
    long long outputEnd = 0;
    long long firstRecordTime = 0;
    long long lastRecordTime = 0;
    long long readStart = -1;
    long long readEnd = -1;
    DataRecord previousRecord;   // the last record seen (SUM, PREV, NEXT, PREV_NEXT)
    DataRecord keptRecord;       // the extreme of MIN and MAX, the minimum of MIN_MAX
    DataRecord keptMaxRecord;    // the maximum of MIN_MAX
    std::vector<double> values;
    std::map<double, int> valueCounts;
    long long recordCount = 0;
    double sum = 0.0;
    double secondSum = 0.0;      // spare accumulators, not used by the current handlers
    int pushedCount = 0;
    double lastValue = 0.0;
    DiffHandler diffHandler = nullptr;
    std::deque<QVariant> diffHistory;
    QList<double> counterWrapValues;
    bool counterZeroSeen = false;
    // Whether the engine takes records: cleared when getRange finds no range,
    // when a limit or an error stops the read, when a count is known without
    // reading, and by finalize. An engine that takes no records closes no
    // interval either.
    bool acceptsRecords = true;
};

} // namespace Kel
