// The companion logs of a batch: "P" appended to, "O" merged per write time.

#include "CompanionLogs.h"

#include "Calendar.h"
#include "StorageNames.h"

namespace Kel::detail {

using Record = Interpolate::DataRecord;

namespace {

QString companionDir(const TSFileStorage& series, const names::Companion& companion)
{
    return names::companionDir(series.baseDir, QLatin1String(companion.marker));
}

} // namespace

void logBackfill(TSFileStorage& series, const std::vector<long long>& backfilled)
{
    TSFileStorage log(companionDir(series, names::kBackfillLogCompanion), names::kBackfillLogCompanion.type,
                      series.maxFileSize);
    const long long now = nowWholeSecondMs();
    std::vector<Record> existing;
    int limit = 1;
    log.readDataRecords(Interpolate::InterpolateParam(), {}, now, TSFileStorage::TS_LAST_RECORD,
                        existing, false, limit);
    std::vector<Record> records;
    records.reserve(backfilled.size());
    for (size_t i = 0; i < backfilled.size(); ++i)
        records.push_back({now + (i == 0 && existing.empty() ? 0 : 1), QVariant(qlonglong(backfilled[i]))});
    log.writeDataRecordsInt(std::move(records), false, false, true);
}

void logOverwritten(TSFileStorage& series, const std::vector<Interpolate::DataRecord>& overwritten)
{
    TSFileStorage log(companionDir(series, names::kOverwrittenCompanion), names::kOverwrittenCompanion.type,
                      series.maxFileSize);
    const long long now = nowMs();
    std::vector<Record> existing;
    int noLimit = 0;
    log.readDataRecords(Interpolate::InterpolateParam(), {}, now, now, existing, false, noLimit);
    QVariantMap replaced = existing.empty() ? QVariantMap() : existing.front().value.toMap();
    for (const Record& r : overwritten)
        replaced.insert(QString::number(r.timestamp, 10), r.value);
    log.writeDataRecordsInt({{now, QVariant(replaced)}}, false, false, false);
}

} // namespace Kel::detail
