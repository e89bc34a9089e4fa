// Times as operators type and read them: timestamps (epoch milliseconds or
// ISO 8601 UTC), range bounds relative to now or to the series' first and
// last record, durations, and the intervals of condensed reads.
#pragma once

#include <QString>
#include <QStringView>
#include <QTimeZone>

#include <optional>

namespace kelts {

constexpr long long kSecondMs = 1000;
constexpr long long kMinuteMs = 60 * kSecondMs;
constexpr long long kHourMs = 60 * kMinuteMs;
constexpr long long kDayMs = 24 * kHourMs;

// The instants the storage can place in its date tree: years 0 to 9999.
constexpr long long kEarliestMs = -62167219200000LL;   // 0000-01-01T00:00:00.000Z
constexpr long long kLatestMs = 253402300799999LL;     // 9999-12-31T23:59:59.999Z

// The zone of --tz: times print in it, and a time typed without a zone
// is read in it (daylight saving included). Without one (nullopt), both
// are UTC.
void setTimeZone(std::optional<QTimeZone> zone);
// The zone set, or UTC.
QTimeZone timeZone();
// An IANA name ("Europe/Berlin") or "UTC".
bool parseTimeZone(QStringView text, QTimeZone& zone, QString& why);

// Milliseconds since 1970-01-01 UTC, or ISO 8601 such as
// "2024-05-07T09:03:00Z", "2024-05-07T09:03:00.250Z", "2024-05-07 09:03Z",
// "2024-05-07T11:03:00+02:00", the basic form "20240507T090300Z", or a plain
// date "2024-05-07" (midnight UTC, or in the --tz zone). Digits of a second
// beyond the millisecond are dropped (".123456" is .123). A time of day
// without a zone is read in the --tz zone, and refused without one rather
// than guessed; so is a local time the clocks skip or pass twice.
bool parseTimestamp(QStringView text, long long& ms, QString& why);

enum class TimeFormat { Iso, Ms };

// "2024-05-07T09:03:00.000Z", always with milliseconds, so that the text
// reads back as the same instant.
QString isoTime(long long ms);
// The time as output prints it: isoTime, or with --tz the local time with
// its offset ("2024-05-07T11:03:00.000+02:00"), or milliseconds.
QString formatTime(long long ms, TimeFormat format);
// The same text written into p, for the millions of rows of a read: at most
// kTimeTextBytes characters. Returns the end of the text, or null for an
// instant before year 1 or a local time, which only formatTime writes.
constexpr int kTimeTextBytes = 24;
char* writeTime(char* p, long long ms, TimeFormat format);
bool parseTimeFormat(QStringView text, TimeFormat& format, QString& why);

// A length of time: "250ms", "90s", "15m", "1h", "2d", "1w"; a plain number
// is seconds.
bool parseDurationMs(QStringView text, long long& ms, QString& why);

// A range bound: a timestamp, or "now", "first", "last", each optionally
// shifted by a duration ("now-24h", "last-15m", "first+1d").
struct TimeBound {
    enum Anchor { Exact, Now, First, Last };
    Anchor anchor = Exact;
    long long ms = 0;   // the instant for Exact, the shift from the anchor otherwise
};
bool parseBound(QStringView text, TimeBound& bound, QString& why);

// The interval of a condensed read as the library takes it: seconds when
// positive (from "900", "15m", "1h", "1d"), calendar units when negative
// (from "day" -1, "week" -2, "month" -3, "quarter" -4, "halfyear" -5,
// "year" -6), 0 for raw records ("0" or "raw").
bool parseInterval(QStringView text, long long& interval, QString& why);
// "1h", "15m", "90s", "day", ... for messages and chart titles.
QString describeInterval(long long interval);

// "1.23 s", "45 ms" for the timings the tool reports.
QString describeElapsed(long long nanoseconds);

} // namespace kelts
