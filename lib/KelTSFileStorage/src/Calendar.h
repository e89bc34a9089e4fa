// UTC calendar helpers shared by the tree, the storage and the engine.
#pragma once

#include <Poco/DateTime.h>
#include <Poco/Timestamp.h>

namespace Kel::detail {

// The tree names years with 4 digits, so only instants of the years 0 to 9999
// can be placed in it (and converted to microseconds without overflow).
inline constexpr long long kFirstPlaceableMs = -62167219200000LL;  // 0000-01-01T00:00:00Z
inline constexpr long long kLastPlaceableMs = 253402300799999LL;   // 9999-12-31T23:59:59.999Z

inline bool isPlaceable(long long ms)
{
    return ms >= kFirstPlaceableMs && ms <= kLastPlaceableMs;
}

inline Poco::DateTime dateTimeOfMs(long long ms)
{
    return Poco::DateTime(Poco::Timestamp(Poco::Timestamp::TimeVal(ms) * 1000));
}

// The current time in ms, from the UTC time of a Poco::DateTime of now.
inline long long nowMs()
{
    return Poco::DateTime().timestamp().epochMicroseconds() / 1000;
}

// The current time truncated to the whole second, in ms.
inline long long nowWholeSecondMs()
{
    return Poco::DateTime().timestamp().epochMicroseconds() / 1000000 * 1000;
}

inline bool isLeapYear(int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

inline int daysInMonth(int year, int month)
{
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeapYear(year) ? 29 : days[(month - 1) % 12];
}

} // namespace Kel::detail
