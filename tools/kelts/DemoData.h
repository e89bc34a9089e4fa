// The demo's sample: one-second readings of an electricity meter and of a
// room temperature, made up but shaped like a real office week: a working
// day load and a daily temperature swing. The meter's six-digit register
// (Wh) wraps from 999,999 to 0 once and is reset to 0 once (a meter
// exchange), the two things a consumption read must cope with.
#pragma once

#include "Interpolate.h"

#include <vector>

namespace kelts {

struct DemoSample {
    long long start = 0;        // first reading
    int days = 0;
    std::vector<Kel::Interpolate::DataRecord> meter;          // Wh, whole numbers
    std::vector<Kel::Interpolate::DataRecord> temperature;    // degrees Celsius
    long long wrapAt = 0;       // first reading after the wrap-around
    long long resetAt = 0;      // first reading of the new meter
    std::vector<double> dailyWh;   // energy really used on each day
};

// days one-second readings from start (midnight UTC), the same every time.
DemoSample makeDemoSample(long long start, int days);

} // namespace kelts
