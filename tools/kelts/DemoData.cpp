// The made-up process behind the demo's readings.

#include "DemoData.h"

#include "TimeText.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace kelts {

namespace {

constexpr long long kDaySeconds = 86400;
constexpr double kRegisterWraps = 1000000.0;   // six digits of Wh
constexpr double kPi = 3.14159265358979323846;

// Where in the sample the two meter events fall, as shares of its length.
constexpr double kWrapShare = 0.35;
constexpr double kResetShare = 0.65;

struct Clock {
    int weekday;   // 1 Monday .. 7 Sunday
    double hour;   // 0 .. 24
};

// Worked out by hand rather than through QDateTime: it runs twice a second
// of the sample. The sample lies after 1970, which began on a Thursday.
Clock clockAt(long long ms)
{
    return {int((ms / kDayMs + 3) % 7) + 1, double(ms % kDayMs) / double(kHourMs)};
}

// 0 outside working hours, 1 inside, with half-hour ramps at either end.
double workingShare(const Clock& c)
{
    if (c.weekday > 5)
        return 0.0;
    auto ramp = [](double x) { return x <= 0 ? 0.0 : x >= 1 ? 1.0 : 0.5 - 0.5 * std::cos(kPi * x); };
    return ramp((c.hour - 7.0) / 0.5) * (1.0 - ramp((c.hour - 17.5) / 0.5));
}

class Process {
public:
    // Power and temperature draw from generators of their own, so that a dry
    // run of the power alone sees the same values.
    explicit Process(unsigned seed) : powerRandom(seed), temperatureRandom(seed + 1) {}

    // Watts drawn in the second that starts at ms: base load, office load,
    // a compressor that runs ten minutes in forty, and some wander.
    double powerW(long long ms)
    {
        const Clock c = clockAt(ms);
        wander = std::clamp(wander + noise(powerRandom) * 8.0, -150.0, 150.0);
        const bool compressor = (ms / kSecondMs) % 2400 < 600;
        return 850.0 + 2600.0 * workingShare(c) + (compressor ? 400.0 : 0.0) + wander;
    }

    // A daily swing with its peak in the afternoon, warmer while the office
    // is in use, with slow sensor noise; to 0.01 degrees like the sensor.
    double temperatureC(long long ms)
    {
        const Clock c = clockAt(ms);
        drift = 0.999 * drift + noise(temperatureRandom) * 0.004;
        const double t = 20.5 + 1.8 * std::sin(2.0 * kPi * (c.hour - 9.0) / 24.0) + 1.5 * workingShare(c) + drift;
        return std::round(t * 100.0) / 100.0;
    }

private:
    std::mt19937 powerRandom;
    std::mt19937 temperatureRandom;
    std::normal_distribution<double> noise{0.0, 1.0};
    double wander = 0.0;
    double drift = 0.0;
};

// The energy used from start until the given second, by a dry run of the
// same process, so that the register can be set to wrap there.
double energyUntil(long long start, long long until, unsigned seed)
{
    Process process(seed);
    double wh = 0.0;
    for (long long ms = start; ms < until; ms += kSecondMs)
        wh += process.powerW(ms) / 3600.0;
    return wh;
}

} // namespace

DemoSample makeDemoSample(long long start, int days)
{
    constexpr unsigned seed = 20240506;
    DemoSample s;
    s.start = start;
    s.days = days;
    const long long seconds = days * kDaySeconds;
    const long long wrapTarget = start + static_cast<long long>(seconds * kWrapShare) * kSecondMs;
    s.resetAt = start + static_cast<long long>(seconds * kResetShare) / 3600 * 3600 * kSecondMs;
    s.meter.reserve(std::size_t(seconds));
    s.temperature.reserve(std::size_t(seconds));
    s.dailyWh.assign(std::size_t(days), 0.0);

    // The register starts where it wraps about wrapTarget.
    const double firstReading = std::floor(kRegisterWraps - energyUntil(start, wrapTarget, seed));
    double used = 0.0;          // energy since the start
    double usedAtReset = 0.0;
    bool replaced = false;
    Process process(seed);
    for (long long i = 0; i < seconds; ++i) {
        const long long ms = start + i * kSecondMs;
        if (!replaced && ms >= s.resetAt) {
            replaced = true;
            usedAtReset = used;
        }
        const double reading = replaced ? std::floor(used - usedAtReset)
                                        : std::fmod(std::floor(firstReading + used), kRegisterWraps);
        if (!replaced && s.wrapAt == 0 && !s.meter.empty() && reading < s.meter.back().value.toDouble())
            s.wrapAt = ms;
        s.meter.push_back({ms, QVariant(reading)});
        s.temperature.push_back({ms, QVariant(process.temperatureC(ms))});
        const double wh = process.powerW(ms) / 3600.0;
        used += wh;
        s.dailyWh[std::size_t(i / kDaySeconds)] += wh;
    }
    return s;
}

} // namespace kelts
