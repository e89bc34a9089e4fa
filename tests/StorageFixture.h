// A scratch series per test, with short ways to write and read it.
#pragma once

#include "TSFileStorage.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <memory>

namespace Kel::test {

using Record = Interpolate::DataRecord;
using Records = std::vector<Record>;

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
                 long long interval = 0)
    {
        Interpolate::InterpolateParam param;
        param.method = method;
        param.interval = interval;
        Records out;
        int count = 0;
        series->readDataRecords(param, {}, start, end, out, false, count);
        return out;
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
