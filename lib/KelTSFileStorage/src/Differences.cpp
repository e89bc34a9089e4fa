// The difference methods: they turn a raw record's value into the change
// since the record before it, before the aggregation method sees it. A record
// whose value they make invalid is dropped by the driver.
//
// diffHistory keeps the last values remembered (at most 10 after a record).
// The counter-cleaning variant drops backward jitter, bridges a wrap-around
// of the counter and restarts after a reset to 0.

#include "Interpolate.h"

#include <algorithm>
#include <cmath>

namespace Kel {

namespace {

constexpr std::size_t kHistoryKeptBeforeRecord = 9;

// Keeps the last 9 entries. Shifting them to the front instead of popping
// the oldest keeps the deque in the blocks it already has, so remembering
// the next value allocates nothing. The oldest entry is swapped to the back
// and dropped there: a swap stays inline, where a move assignment destroys
// a QVariant through a call into Qt, and only one entry is destroyed.
void trimHistory(std::deque<QVariant>& history)
{
    while (history.size() > kHistoryKeptBeforeRecord) {
        for (auto it = history.begin(), next = it + 1; next != history.end(); ++it, ++next)
            it->swap(*next);
        history.pop_back();
    }
}

void consume(Interpolate::DataRecord& record)
{
    record.value = QVariant();
}

// The rise of the last five remembered values, divided by 5.0 although four
// steps are summed, times 0.001: a backward step smaller than this is jitter.
double jitterThreshold(const std::deque<QVariant>& history)
{
    const std::size_t n = history.size();
    double rise = 0.0;
    for (std::size_t i = n - 4; i < n; ++i)
        rise += history[i].toDouble() - history[i - 1].toDouble();
    return rise / 5.0 * 0.001;
}

} // namespace

void Interpolate::handle_DIFF(DataRecord& record, long long timestamp)
{
    Q_UNUSED(timestamp);
    trimHistory(diffHistory);
    if (!diffHistory.empty() && !diffHistory.back().isNull()) {
        const double difference = record.value.toDouble() - diffHistory.back().toDouble();
        diffHistory.push_back(record.value);
        record.value.setValue(difference);
        return;
    }
    // The first record only sets the base.
    diffHistory.push_back(record.value);
    consume(record);
}

void Interpolate::handle_DIFF_CTRUPCLEANED(DataRecord& record, long long timestamp)
{
    Q_UNUSED(timestamp);
    trimHistory(diffHistory);
    const double current = record.value.toDouble();

    if (counterZeroSeen) {
        if (current != 0.0)  // NaN, too, ends the reset
            counterZeroSeen = false;
        diffHistory.push_back(record.value);
        consume(record);
        return;
    }
    if (diffHistory.empty() || diffHistory.back().isNull()) {
        diffHistory.push_back(record.value);
        consume(record);
        return;
    }

    const double last = diffHistory.back().toDouble();
    const double delta = current - last;
    if (delta >= 0.0) {
        diffHistory.push_back(record.value);
        record.value.setValue(delta);
        return;
    }

    // The counter went back (or the difference is NaN).
    if (diffHistory.size() > 4 && jitterThreshold(diffHistory) > std::fabs(delta)) {
        consume(record);
        return;
    }

    // A wrap is decided on the smallest wrap value above the last reading
    // only, and the gap up to it, not the new reading, becomes the base.
    for (const double wrapValue : counterWrapValues) {
        if (wrapValue <= last)
            continue;
        const double gap = wrapValue - last;
        const double nearWrap = wrapValue * 0.002;
        if (gap < nearWrap && current < nearWrap) {
            diffHistory.push_back(QVariant(gap));
            consume(record);
            return;
        }
        break;
    }

    if (current == 0.0) {
        counterZeroSeen = true;
        diffHistory.push_back(record.value);
    }
    consume(record);
}

} // namespace Kel
