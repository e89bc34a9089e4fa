// Helpers shared by the groups of cases.

#include "Cases.h"

#include <cstdio>
#include <stdexcept>

namespace bench {

std::unique_ptr<Kel::TSFileStorage> openSeries(const std::string& dir, QMetaType::Type type, int maxFileSize)
{
    return std::make_unique<Kel::TSFileStorage>(QString::fromStdString(dir), type, maxFileSize);
}

double appendInBatches(Kel::TSFileStorage& series, long long count, long long batch,
                       const std::function<Records(long long, long long)>& makeBatch)
{
    Stopwatch clock;
    for (long long from = 0; from < count; from += batch) {
        Records records = makeBatch(from, std::min(batch, count - from));
        clock.start();
        const bool written = series.writeDataRecords(std::move(records), false, false);
        clock.stop();
        check(written, "append in batches");
    }
    return clock.seconds();
}

Kel::Interpolate::InterpolateParam request(const char* method, long long intervalSeconds)
{
    Kel::Interpolate::InterpolateParam param;
    param.method = QString::fromLatin1(method);
    param.interval = intervalSeconds;
    param.alignStartEndTimestamp = intervalSeconds != 0;
    return param;
}

void check(bool ok, const std::string& what)
{
    if (!ok)
        throw std::runtime_error("case failed: " + what);
}

std::string perCall(const Rates& callRates)
{
    char text[48];
    std::snprintf(text, sizeof text, "%.1f us a call", callRates.median > 0 ? 1e6 / callRates.median : 0.0);
    return text;
}

} // namespace bench
