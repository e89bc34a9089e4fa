// A scratch series per test, with short ways to write and read it.
#pragma once

#include "TSFileStorage.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <memory>

namespace Kel::test {

using Record = Interpolate::DataRecord;
using Records = std::vector<Record>;

// Records an hour apart from 2024-05-07T00:00:00Z: i = from, from + step, ...
// below to, each valued by i + shift (n): "v<n>" as text, n + 0.5 otherwise.
inline Records hourly(int from, int to, QMetaType::Type type = QMetaType::Double, int step = 1, int shift = 0)
{
    Records r;
    for (int i = from; i < to; i += step) {
        const int n = i + shift;
        r.push_back({ms("2024-05-07T00:00:00Z") + i * 3600000LL,
                     type == QMetaType::QString ? QVariant(QStringLiteral("v%1").arg(n))
                     : type == QMetaType::Float ? QVariant(float(n) + 0.5f)
                                                : QVariant(double(n) + 0.5)});
    }
    return r;
}

// Everything a series holds, raw or as the request condenses it.
inline Records readAll(TSFileStorage& series, const Interpolate::InterpolateParam& param = {})
{
    Records out;
    int noLimit = 0;
    series.readDataRecords(param, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD, out, false,
                           noLimit);
    return out;
}

inline Records joined(Records a, const Records& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The same timestamps with equal values, in the same order.
inline bool sameRecords(const Records& a, const Records& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i].timestamp != b[i].timestamp || a[i].value != b[i].value)
            return false;
    return true;
}

class StorageFixture : public ::testing::Test {
protected:
    void useSeries(QMetaType::Type type, int maxFileSize = 1 << 30)
    {
        series = std::make_unique<TSFileStorage>(tmp.path(), type, maxFileSize);
    }
    QString file(const QString& rel) const { return series->baseDir + rel; }

    bool write(Records records, bool backfill = false, bool overwritten = false)
    {
        return series->writeDataRecords(std::move(records), backfill, overwritten);
    }

    Records read(long long start = TSFileStorage::TS_FIRST_RECORD,
                 long long end = TSFileStorage::TS_LAST_RECORD, const QString& method = QString(),
                 long long interval = 0, bool alignRange = false)
    {
        Interpolate::InterpolateParam param;
        param.method = method;
        param.interval = interval;
        param.alignStartEndTimestamp = alignRange;
        Records out;
        int count = 0;
        series->readDataRecords(param, {}, start, end, out, false, count);
        return out;
    }

    // The bytes of file rel of a new series that took these records in one batch.
    static QByteArray bytesOf(const Records& records, QMetaType::Type type = QMetaType::Double,
                              const QString& rel = QStringLiteral("2024"))
    {
        QTemporaryDir other;
        TSFileStorage fresh(other.path(), type, 1 << 30);
        fresh.writeDataRecords(records, false, false);
        return readBytes(fresh.baseDir + rel);
    }

    // The number of raw records the series holds in [start, end].
    long long count(long long start = TSFileStorage::TS_FIRST_RECORD, long long end = TSFileStorage::TS_LAST_RECORD)
    {
        return series->getCount({}, {}, start, end, true, false, false);
    }

    static std::vector<long long> timestamps(const Records& records)
    {
        std::vector<long long> ts;
        for (const Record& r : records)
            ts.push_back(r.timestamp);
        return ts;
    }

    QTemporaryDir tmp;
    std::unique_ptr<TSFileStorage> series = std::make_unique<TSFileStorage>(tmp.path(), QMetaType::Double, 1 << 30);
};

} // namespace Kel::test
