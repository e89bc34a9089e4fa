// Graphite's times, intervals, target expressions and globs.

#include "GraphiteQuery.h"

#include "TimeText.h"

#include <QDateTime>
#include <QRegularExpression>

namespace kelts {

namespace {

// The longest length anything here may have: the years 0 to 9999.
constexpr long long kLongestSeconds = (kLatestMs - kEarliestMs) / 1000;

struct Unit {
    const char* name;
    long long seconds;
    long long calendar;   // the storage's calendar unit for a count of 1, or 0
};

// Longest names first, so that "mon" is not read as "m" and "on".
const Unit kUnits[] = {
    {"months", 30 * 86400, -3}, {"month", 30 * 86400, -3}, {"mon", 30 * 86400, -3}, {"minutes", 60, 0},
    {"minute", 60, 0},          {"min", 60, 0},             {"weeks", 7 * 86400, -2}, {"week", 7 * 86400, -2},
    {"w", 7 * 86400, -2},       {"days", 86400, -1},        {"day", 86400, -1},       {"d", 86400, -1},
    {"hours", 3600, 0},         {"hour", 3600, 0},          {"h", 3600, 0},           {"seconds", 1, 0},
    {"second", 1, 0},           {"s", 1, 0},                {"years", 365 * 86400, -6}, {"year", 365 * 86400, -6},
    {"y", 365 * 86400, -6},
};

// "15min" as a count and its unit.
bool lengthOf(QStringView text, long long& count, const Unit*& unit)
{
    qsizetype digits = 0;
    while (digits < text.size() && text[digits].isDigit())
        ++digits;
    if (digits == 0 || digits > 9)
        return false;
    count = text.left(digits).toLongLong();
    const QStringView name = text.mid(digits);
    for (const Unit& u : kUnits)
        if (name == QLatin1String(u.name)) {
            unit = &u;
            return true;
        }
    return false;
}

// Graphite's arguments are positional; a parser with a cursor over the text.
class TargetParser {
public:
    explicit TargetParser(QStringView text) : text(text) {}

    bool parse(Target& out, QString& why)
    {
        if (!expression(out, 0, why))
            return false;
        skipSpaces();
        if (pos != text.size()) {
            why = QStringLiteral("unexpected '%1' at %2").arg(text.mid(pos, 10)).arg(pos);
            return false;
        }
        return true;
    }

private:
    void skipSpaces()
    {
        while (pos < text.size() && text[pos].isSpace())
            ++pos;
    }

    bool expression(Target& out, int depth, QString& why)
    {
        if (depth > kMaxTargetDepth) {
            why = QStringLiteral("functions nest too deep");
            return false;
        }
        skipSpaces();
        if (pos >= text.size()) {
            why = QStringLiteral("an expression is missing");
            return false;
        }
        const QChar c = text[pos];
        if (c == u'\'' || c == u'"')
            return quoted(out, why);
        if (c.isDigit() || c == u'-' || c == u'+' || c == u'.') {
            const qsizetype start = pos;
            while (pos < text.size() && (text[pos].isDigit() || QStringView(u".eE+-").contains(text[pos])))
                ++pos;
            bool ok = false;
            out.kind = Target::Kind::Number;
            out.text = text.mid(start, pos - start).toString();
            out.number = out.text.toDouble(&ok);
            if (ok && (pos >= text.size() || !isPathChar(text[pos])))
                return true;
            pos = start;   // a path that starts with a digit
        }
        const qsizetype start = pos;
        int braces = 0;
        while (pos < text.size() && (isPathChar(text[pos]) || (braces > 0 && text[pos] == u','))) {
            braces += text[pos] == u'{' ? 1 : text[pos] == u'}' ? -1 : 0;
            ++pos;
        }
        if (pos == start) {
            why = QStringLiteral("unexpected '%1' at %2").arg(text[pos]).arg(pos);
            return false;
        }
        out.text = text.mid(start, pos - start).toString();
        skipSpaces();
        if (pos < text.size() && text[pos] == u'(') {
            ++pos;
            out.kind = Target::Kind::Call;
            return arguments(out, depth, why);
        }
        out.kind = Target::Kind::Path;
        return true;
    }

    bool arguments(Target& call, int depth, QString& why)
    {
        skipSpaces();
        if (pos < text.size() && text[pos] == u')') {
            ++pos;
            return true;
        }
        for (;;) {
            Target arg;
            if (!expression(arg, depth + 1, why))
                return false;
            call.args.push_back(std::move(arg));
            skipSpaces();
            if (pos < text.size() && text[pos] == u',') {
                ++pos;
                continue;
            }
            if (pos < text.size() && text[pos] == u')') {
                ++pos;
                return true;
            }
            why = QStringLiteral("%1( is not closed").arg(call.text);
            return false;
        }
    }

    bool quoted(Target& out, QString& why)
    {
        const QChar quote = text[pos++];
        const qsizetype start = pos;
        while (pos < text.size() && text[pos] != quote)
            ++pos;
        if (pos >= text.size()) {
            why = QStringLiteral("a quoted text is not closed");
            return false;
        }
        out.kind = Target::Kind::String;
        out.text = text.mid(start, pos - start).toString();
        ++pos;
        return true;
    }

    static bool isPathChar(QChar c)
    {
        return c.isLetterOrNumber() || QStringView(u"._-*?[]{}:~@#$%^&!=<>| ").contains(c);
    }

    QStringView text;
    qsizetype pos = 0;
};

// A segment's glob as a regular expression: the engine's own limits keep a
// hostile pattern from running away, where a backtracking matcher of our own
// would not.
QString globToRegex(QStringView glob)
{
    QString rx;
    for (qsizetype i = 0; i < glob.size(); ++i) {
        const QChar c = glob[i];
        if (c == u'*') {
            rx += QStringLiteral("[^.]*");
        } else if (c == u'?') {
            rx += QStringLiteral("[^.]");
        } else if (c == u'[' && glob.indexOf(u']', i + 1) > i + 1) {
            const qsizetype close = glob.indexOf(u']', i + 1);
            QString set;
            for (const QChar m : glob.mid(i + 1, close - i - 1))
                set += m == u'-' ? QString(m) : QRegularExpression::escape(QString(m));
            rx += u'[' + set + u']';
            i = close;
        } else if (c == u'{' && glob.indexOf(u'}', i + 1) > i) {
            const qsizetype close = glob.indexOf(u'}', i + 1);
            QStringList alternatives;
            for (const QStringView a : glob.mid(i + 1, close - i - 1).split(u','))
                alternatives << globToRegex(a);
            rx += QStringLiteral("(?:") + alternatives.join(u'|') + u')';
            i = close;
        } else {
            rx += QRegularExpression::escape(QString(c));
        }
    }
    return rx;
}

bool matchHere(QStringView glob, QStringView s)
{
    const QRegularExpression rx(QRegularExpression::anchoredPattern(globToRegex(glob)));
    return rx.isValid() && rx.match(s).hasMatch();
}

// Splits a dotted glob at the dots outside braces.
QList<QStringView> segments(QStringView glob)
{
    QList<QStringView> out;
    int braces = 0;
    qsizetype start = 0;
    for (qsizetype i = 0; i < glob.size(); ++i) {
        braces += glob[i] == u'{' ? 1 : glob[i] == u'}' ? -1 : 0;
        if (glob[i] == u'.' && braces == 0) {
            out << glob.mid(start, i - start);
            start = i + 1;
        }
    }
    out << glob.mid(start);
    return out;
}

} // namespace

bool parseGraphiteTime(QStringView text, long long nowMs, long long& ms, QString& why)
{
    text = text.trimmed();
    if (text.isEmpty() || text == u"now") {
        ms = nowMs;
        return true;
    }
    bool ok = false;
    const long long seconds = text.toLongLong(&ok);
    if (ok && text.size() != 8) {   // eight digits are a date
        if (seconds < kEarliestMs / 1000 || seconds > kLatestMs / 1000) {
            why = QStringLiteral("%1 s lies outside the years 0 to 9999").arg(seconds);
            return false;
        }
        ms = seconds * 1000;
        return true;
    }
    QStringView relative = text.startsWith(u"now") ? text.mid(3) : text;
    if (relative.startsWith(u'-') || relative.startsWith(u'+')) {
        long long count = 0;
        const Unit* unit = nullptr;
        if (lengthOf(relative.mid(1), count, unit)) {
            if (count * unit->seconds > kLongestSeconds) {
                why = QStringLiteral("'%1' reaches beyond the years 0 to 9999").arg(text);
                return false;
            }
            ms = nowMs + (relative.front() == u'-' ? -1 : 1) * count * unit->seconds * 1000;
            return true;
        }
    }
    static const QRegularExpression absolute(QStringLiteral("^(?:(\\d{2}):(\\d{2})_)?(\\d{4})(\\d{2})(\\d{2})$"));
    const QRegularExpressionMatch m = absolute.match(text);
    if (m.hasMatch()) {
        const QDate date(m.captured(3).toInt(), m.captured(4).toInt(), m.captured(5).toInt());
        const QTime time(m.captured(1).isEmpty() ? 0 : m.captured(1).toInt(), m.captured(2).isEmpty() ? 0 : m.captured(2).toInt());
        if (date.isValid() && time.isValid()) {
            ms = QDateTime(date, time, QTimeZone::utc()).toMSecsSinceEpoch();
            return true;
        }
    }
    why = QStringLiteral("'%1' is not a time (now, -6h, epoch seconds, HH:MM_YYYYMMDD or YYYYMMDD)").arg(text);
    return false;
}

bool parseGraphiteInterval(QStringView text, bool calendar, long long& interval, QString& why)
{
    long long count = 0;
    const Unit* unit = nullptr;
    if (!lengthOf(text.trimmed(), count, unit) || count <= 0) {
        why = QStringLiteral("'%1' is not a length such as 1h, 15min, 1d or 1mon").arg(text);
        return false;
    }
    if (calendar && count == 1 && unit->calendar != 0) {
        interval = unit->calendar;
        return true;
    }
    if (count * unit->seconds > kLongestSeconds) {
        why = QStringLiteral("'%1' is longer than the years 0 to 9999").arg(text);
        return false;
    }
    if (unit->calendar == -3 || unit->calendar == -6) {
        why = QStringLiteral("'%1': months and years are counted one at a time").arg(text);
        return false;
    }
    interval = count * unit->seconds;
    return true;
}

bool parseTarget(QStringView text, Target& target, QString& why)
{
    target = Target();
    if (text.size() > kMaxTargetLength) {
        why = QStringLiteral("the target is longer than %1 characters").arg(kMaxTargetLength);
        return false;
    }
    return TargetParser(text).parse(target, why);
}

bool segmentMatches(QStringView glob, QStringView segment)
{
    return matchHere(glob, segment);
}

bool globMatches(QStringView glob, QStringView name)
{
    const QList<QStringView> g = segments(glob);
    const QList<QStringView> n = name.split(u'.');
    if (g.size() != n.size())
        return false;
    for (qsizetype i = 0; i < g.size(); ++i)
        if (!matchHere(g[i], n[i]))
            return false;
    return true;
}

} // namespace kelts
