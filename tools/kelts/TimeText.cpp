// Parsing and printing of timestamps, bounds, durations and intervals.

#include "TimeText.h"

#include <QDate>
#include <QDateTime>
#include <QRegularExpression>
#include <QTimeZone>
#include <QTime>

#include <charconv>
#include <optional>

namespace kelts {

namespace {

struct CalendarWord {
    const char* word;
    long long interval;
};

// The calendar units of the interpolation engine, by the numbers it takes.
const CalendarWord kCalendarWords[] = {
    {"day", -1}, {"week", -2}, {"month", -3}, {"quarter", -4}, {"halfyear", -5}, {"year", -6},
};

bool isAllDigits(QStringView text)
{
    if (text.isEmpty())
        return false;
    for (QChar c : text)
        if (c < u'0' || c > u'9')
            return false;
    return true;
}

bool parseEpochMs(QStringView text, long long& ms, QString& why)
{
    bool ok = false;
    ms = text.toLongLong(&ok);
    if (!ok) {
        why = QStringLiteral("'%1' is too large for a time in milliseconds").arg(text);
        return false;
    }
    if (ms < kEarliestMs || ms > kLatestMs) {
        why = QStringLiteral("%1 ms lies outside the years 0 to 9999").arg(ms);
        return false;
    }
    return true;
}

// The zone suffix of an ISO time: "Z", "+02:00", "-0130"; minutes east of UTC.
bool zoneOffsetMinutes(QStringView zone, int& minutes)
{
    if (zone == u"Z" || zone == u"z") {
        minutes = 0;
        return true;
    }
    const QString digits = zone.mid(1).toString().remove(u':');
    if (digits.size() != 4 || !isAllDigits(digits))
        return false;
    minutes = digits.left(2).toInt() * 60 + digits.mid(2).toInt();
    if (zone.front() == u'-')
        minutes = -minutes;
    return true;
}

std::optional<QTimeZone>& chosenZone()
{
    static std::optional<QTimeZone> zone;
    return zone;
}

// The instant of a local time in a zone; refused where the clocks skip it
// (spring) or pass it twice (autumn), rather than guessed.
bool localInstant(const QDate& date, const QTime& time, const QTimeZone& zone, QStringView text, long long& ms,
                  QString& why)
{
    ms = QDateTime(date, time, zone).toMSecsSinceEpoch();
    const auto readsAs = [&](long long at) {
        const QDateTime local = QDateTime::fromMSecsSinceEpoch(at, zone);
        return local.date() == date && local.time() == time;
    };
    if (!readsAs(ms)) {
        why = QStringLiteral("'%1' does not exist in %2: the clocks skip it").arg(text, QString::fromUtf8(zone.id()));
        return false;
    }
    const QDateTime around = QDateTime::fromMSecsSinceEpoch(ms, zone);
    const long long change = (zone.offsetFromUtc(around.addSecs(12 * 3600)) - zone.offsetFromUtc(around.addSecs(-12 * 3600))) *
                             kSecondMs;
    if (change != 0 && (readsAs(ms + change) || readsAs(ms - change))) {
        why = QStringLiteral("'%1' happens twice in %2 (the clocks go back): give its offset, such as +01:00")
                  .arg(text, QString::fromUtf8(zone.id()));
        return false;
    }
    return true;
}

bool parseIso(QStringView text, long long& ms, QString& why)
{
    // The extended form and the basic one, with the same groups: date, hour,
    // minute, second, fraction, zone.
    static const QRegularExpression extended(QStringLiteral(
        "^(\\d{4})-(\\d{2})-(\\d{2})"
        "(?:[T ](\\d{2}):(\\d{2})(?::(\\d{2})(?:[.,](\\d{1,9}))?)?(Z|z|[+-]\\d{2}:?\\d{2})?)?$"));
    static const QRegularExpression basic(QStringLiteral(
        "^(\\d{4})(\\d{2})(\\d{2})"
        "T(\\d{2})(\\d{2})(?:(\\d{2})(?:[.,](\\d{1,9}))?)?(Z|z|[+-]\\d{2}:?\\d{2})?$"));
    QRegularExpressionMatch m = extended.match(text);
    if (!m.hasMatch())
        m = basic.match(text);
    if (!m.hasMatch()) {
        why = QStringLiteral("'%1' is not a time: give milliseconds since 1970 or ISO 8601 UTC "
                             "such as 2024-05-07T09:03:00Z")
                  .arg(text);
        return false;
    }
    const QDate date(m.captured(1).toInt(), m.captured(2).toInt(), m.captured(3).toInt());
    if (!date.isValid()) {
        why = QStringLiteral("'%1' names no calendar date").arg(text);
        return false;
    }
    const bool hasTime = m.capturedLength(4) > 0;
    const std::optional<QTimeZone>& zone = chosenZone();
    const bool local = m.capturedLength(8) == 0 && zone;
    if (hasTime && m.capturedLength(8) == 0 && !zone) {
        why = QStringLiteral("'%1' has no time zone: add Z for UTC (or give --tz)").arg(text);
        return false;
    }
    QString fraction = m.captured(7).left(3);   // the storage keeps milliseconds
    while (fraction.size() < 3)
        fraction += u'0';   // ".5" is half a second
    const QTime time(m.captured(4).toInt(), m.captured(5).toInt(), m.captured(6).toInt(),
                     fraction.toInt());
    if (hasTime && !time.isValid()) {
        why = QStringLiteral("'%1' names no time of day").arg(text);
        return false;
    }
    int offsetMinutes = 0;
    if (local) {
        if (!localInstant(date, hasTime ? time : QTime(0, 0), *zone, text, ms, why))
            return false;
    } else if (hasTime && !zoneOffsetMinutes(m.captured(8), offsetMinutes)) {
        why = QStringLiteral("'%1' has an unreadable time zone").arg(text);
        return false;
    }
    if (!local)
        ms = QDateTime(date, hasTime ? time : QTime(0, 0), Qt::UTC).toMSecsSinceEpoch() - offsetMinutes * kMinuteMs;
    if (ms < kEarliestMs || ms > kLatestMs) {
        why = QStringLiteral("'%1' lies outside the years 0 to 9999").arg(text);
        return false;
    }
    return true;
}

} // namespace

bool parseTimestamp(QStringView text, long long& ms, QString& why)
{
    text = text.trimmed();
    const bool negative = text.startsWith(u'-');
    if (isAllDigits(negative ? text.mid(1) : text))
        return parseEpochMs(text, ms, why);
    return parseIso(text, ms, why);
}

QString isoTime(long long ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(Qt::ISODateWithMs);
}

QString formatTime(long long ms, TimeFormat format)
{
    if (format == TimeFormat::Ms)
        return QString::number(ms);
    if (const std::optional<QTimeZone>& zone = chosenZone())
        return QDateTime::fromMSecsSinceEpoch(ms, *zone).toString(Qt::ISODateWithMs);
    return isoTime(ms);
}

void setTimeZone(std::optional<QTimeZone> zone)
{
    chosenZone() = std::move(zone);
}

QTimeZone timeZone()
{
    return chosenZone().value_or(QTimeZone::utc());
}

bool parseTimeZone(QStringView text, QTimeZone& zone, QString& why)
{
    zone = QTimeZone(text.toUtf8());
    if (!zone.isValid()) {
        why = QStringLiteral("--tz: '%1' is no time zone this machine knows (an IANA name such as Europe/Berlin, or UTC)")
                  .arg(text);
        return false;
    }
    return true;
}

namespace {

char* digits(char* p, long long value, int width)
{
    for (int i = width - 1; i >= 0; --i) {
        p[i] = char('0' + value % 10);
        value /= 10;
    }
    return p + width;
}

// The proleptic Gregorian date of a day counted from 1970-01-01.
void civilDate(long long days, long long& year, int& month, int& day)
{
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long dayOfEra = days - era * 146097;
    const long long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long long mp = (5 * dayOfYear + 2) / 153;
    day = int(dayOfYear - (153 * mp + 2) / 5 + 1);
    month = int(mp < 10 ? mp + 3 : mp - 9);
    year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
}

} // namespace

char* writeTime(char* p, long long ms, TimeFormat format)
{
    if (format == TimeFormat::Ms)
        return std::to_chars(p, p + kTimeTextBytes, ms).ptr;
    if (chosenZone())
        return nullptr;
    const long long days = (ms >= 0 ? ms : ms - (kDayMs - 1)) / kDayMs;
    long long inDay = ms - days * kDayMs;
    long long year = 0;
    int month = 0;
    int day = 0;
    civilDate(days, year, month, day);
    if (year < 1 || year > 9999)
        return nullptr;
    p = digits(p, year, 4);
    *p++ = '-';
    p = digits(p, month, 2);
    *p++ = '-';
    p = digits(p, day, 2);
    *p++ = 'T';
    p = digits(p, inDay / kHourMs, 2);
    inDay %= kHourMs;
    *p++ = ':';
    p = digits(p, inDay / kMinuteMs, 2);
    inDay %= kMinuteMs;
    *p++ = ':';
    p = digits(p, inDay / kSecondMs, 2);
    *p++ = '.';
    p = digits(p, inDay % kSecondMs, 3);
    *p++ = 'Z';
    return p;
}

bool parseTimeFormat(QStringView text, TimeFormat& format, QString& why)
{
    if (text == u"iso") {
        format = TimeFormat::Iso;
        return true;
    }
    if (text == u"ms") {
        format = TimeFormat::Ms;
        return true;
    }
    why = QStringLiteral("--time takes 'iso' or 'ms', not '%1'").arg(text);
    return false;
}

bool parseDurationMs(QStringView text, long long& ms, QString& why)
{
    static const QRegularExpression pattern(QStringLiteral("^(\\d+)(ms|s|m|h|d|w)?$"));
    const QRegularExpressionMatch m = pattern.match(text.trimmed());
    bool ok = false;
    const long long count = m.hasMatch() ? m.captured(1).toLongLong(&ok) : 0;
    if (!ok) {
        why = QStringLiteral("'%1' is not a length of time such as 90s, 15m, 1h or 2d").arg(text);
        return false;
    }
    const QString unit = m.captured(2);
    long long unitMs = kSecondMs;
    if (unit == u"ms")
        unitMs = 1;
    else if (unit == u"m")
        unitMs = kMinuteMs;
    else if (unit == u"h")
        unitMs = kHourMs;
    else if (unit == u"d")
        unitMs = kDayMs;
    else if (unit == u"w")
        unitMs = 7 * kDayMs;
    if (count > (kLatestMs - kEarliestMs) / unitMs) {
        why = QStringLiteral("'%1' is longer than the time the storage can hold").arg(text);
        return false;
    }
    ms = count * unitMs;
    return true;
}

bool parseBound(QStringView text, TimeBound& bound, QString& why)
{
    text = text.trimmed();
    static const QRegularExpression anchored(QStringLiteral("^(now|first|last)(?:([+-])(.+))?$"));
    const QRegularExpressionMatch m = anchored.match(text);
    if (!m.hasMatch()) {
        bound.anchor = TimeBound::Exact;
        return parseTimestamp(text, bound.ms, why);
    }
    const QString anchor = m.captured(1);
    bound.anchor = anchor == u"now" ? TimeBound::Now
                 : anchor == u"first" ? TimeBound::First
                                      : TimeBound::Last;
    bound.ms = 0;
    if (m.capturedLength(2) == 0)
        return true;
    if (!parseDurationMs(m.captured(3), bound.ms, why))
        return false;
    if (m.captured(2) == u"-")
        bound.ms = -bound.ms;
    return true;
}

bool parseInterval(QStringView text, long long& interval, QString& why)
{
    text = text.trimmed();
    if (text == u"raw") {
        interval = 0;
        return true;
    }
    for (const CalendarWord& w : kCalendarWords) {
        if (text.compare(QLatin1String(w.word), Qt::CaseInsensitive) == 0) {
            interval = w.interval;
            return true;
        }
    }
    long long ms = 0;
    if (text.endsWith(QLatin1String("ms")) || !parseDurationMs(text, ms, why) || ms % kSecondMs != 0) {
        why = QStringLiteral("'%1' is not an interval: give seconds (900), a length such as 15m, "
                             "1h or 1d, or one of day, week, month, quarter, halfyear, year")
                  .arg(text);
        return false;
    }
    interval = ms / kSecondMs;
    return true;
}

QString describeInterval(long long interval)
{
    for (const CalendarWord& w : kCalendarWords)
        if (w.interval == interval)
            return QString::fromLatin1(w.word);
    if (interval == 0)
        return QStringLiteral("raw");
    if (interval < 0)
        return QStringLiteral("calendar unit %1").arg(interval);
    const struct {
        long long seconds;
        char unit;
    } units[] = {{86400, 'd'}, {3600, 'h'}, {60, 'm'}};
    for (const auto& u : units)
        if (interval % u.seconds == 0)
            return QString::number(interval / u.seconds) + QLatin1Char(u.unit);
    return QString::number(interval) + QLatin1Char('s');
}

QString describeElapsed(long long nanoseconds)
{
    const double ms = double(nanoseconds) / 1e6;
    if (ms < 1.0)
        return QStringLiteral("%1 ms").arg(ms, 0, 'f', 2);
    if (ms < 1000.0)
        return QStringLiteral("%1 ms").arg(ms, 0, 'f', ms < 10.0 ? 1 : 0);
    return QStringLiteral("%1 s").arg(ms / 1000.0, 0, 'f', 2);
}

} // namespace kelts
