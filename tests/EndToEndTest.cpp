#include "StorageFixture.h"

#include <QDir>

#include <algorithm>
#include <random>

using namespace Kel::test;
using Kel::TSFileStorage;

// 200,000 records written in shuffled batches, so that most batches land
// inside files that already exist, while the size limit splits the year
// into months, days and, for the denser days, hours.
class EndToEnd : public StorageFixture {
protected:
    void SetUp() override
    {
        useSeries(QMetaType::Double, 100000);
        long long t = ms("2024-03-01T00:00:00Z");
        for (int i = 0; i < 200000; ++i) {
            const bool denseDay = ((t - ms("2024-03-01T00:00:00Z")) / 86400000) % 2 == 0;
            t += denseDay ? 10000 : 20000;
            expected.push_back({t, 20.0 + 5.0 * std::sin(i / 360.0)});
        }
        Records shuffled = expected;
        std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
        for (size_t at = 0; at < shuffled.size(); at += 5000)
            ASSERT_TRUE(write(Records(shuffled.begin() + long(at), shuffled.begin() + long(at + 5000))));
    }

    Records expected;
};

TEST_F(EndToEnd, ShuffledBatchesReadBackExactlyRawAndAsHourlyMeans)
{
    // A sparse day in a day file, a dense one in hour files.
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024/03/02"))).isFile());
    EXPECT_TRUE(QFileInfo(file(QStringLiteral("2024/03/03/12"))).isFile());

    EXPECT_TRUE(sameRecords(read(0, ms("2100-01-01T00:00:00Z")), expected));
    EXPECT_EQ(count(), 200000);
    EXPECT_EQ(count(expected[12345].timestamp, expected[123456].timestamp), 123456 - 12345 + 1);

    std::map<long long, std::pair<double, int>> byHourEnd;
    for (const Record& r : expected) {
        auto& [sum, n] = byHourEnd[(r.timestamp / 3600000 + 1) * 3600000];
        sum += r.value.toDouble();
        ++n;
    }
    const Records means =
        read(TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD, QStringLiteral("meanA"), 3600, true);
    ASSERT_EQ(means.size(), byHourEnd.size());
    for (const Record& m : means) {
        const auto& [sum, n] = byHourEnd.at(m.timestamp);
        ASSERT_NEAR(m.value.toDouble(), sum / n, 1e-9) << m.timestamp;
    }
}
