// Drawing of the trend chart: scales, ticks, thinned lines and bands.

#include "SvgChart.h"

#include "TimeText.h"

#include <QDateTime>
#include <QXmlStreamWriter>

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <utility>

namespace kelts {

namespace {

// 1970-01-05, the first Monday: weekly ticks fall on Mondays.
constexpr long long kFirstMondayMs = 4 * kDayMs;
constexpr int kMostTimeTicks = 10;
constexpr int kValueTicksWanted = 6;

const char* const kLineColours[] = {"#1f5fa8", "#c0392b", "#2e8b57", "#8e44ad"};
const char* const kBandColours[] = {"#8fb3e0", "#e8a39b", "#9fd3b4", "#c7a6db"};

using Attributes = std::initializer_list<std::pair<const char*, QString>>;

// One element with its attributes and text; the writer escapes both.
void element(QXmlStreamWriter& svg, const char* name, Attributes attributes, const QString& text = QString())
{
    svg.writeStartElement(QLatin1String(name));
    for (const auto& [key, value] : attributes)
        svg.writeAttribute(QLatin1String(key), value);
    if (!text.isEmpty())
        svg.writeCharacters(text);
    svg.writeEndElement();
}

QString num(double x)
{
    return QString::number(x, 'f', 1);
}

QDateTime utc(long long ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}

// Where the plot area lies and how times and values map into it.
struct Frame {
    double left, top, width, height;
    long long t0, t1;
    double v0, v1;

    double x(long long t) const { return left + double(t - t0) / double(t1 - t0) * width; }
    double y(double v) const { return top + height - (v - v0) / (v1 - v0) * height; }
};

bool extentOf(const Chart& chart, long long& t0, long long& t1, double& v0, double& v1)
{
    t0 = std::numeric_limits<long long>::max();
    t1 = std::numeric_limits<long long>::min();
    v0 = std::numeric_limits<double>::infinity();
    v1 = -v0;
    auto take = [&](long long t, double v) {
        if (!std::isfinite(v))
            return;
        t0 = std::min(t0, t);
        t1 = std::max(t1, t);
        v0 = std::min(v0, v);
        v1 = std::max(v1, v);
    };
    for (const ChartLine& line : chart.lines)
        for (const auto& [t, v] : line.points)
            take(t, v);
    for (const ChartBand& band : chart.bands)
        for (const BandPoint& p : band.points) {
            take(p.t, p.low);
            take(p.t, p.high);
        }
    return t0 <= t1;
}

// A step of 1, 2, 2.5 or 5 times a power of ten that cuts the span into
// about the wanted number of pieces.
double roundStep(double span, int wanted)
{
    const double raw = span / wanted;
    const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
    for (const double m : {1.0, 2.0, 2.5, 5.0})
        if (m * magnitude >= raw)
            return m * magnitude;
    return 10.0 * magnitude;
}

int decimalsFor(double step)
{
    int decimals = 0;
    while (decimals < 10 && std::fabs(step * std::pow(10.0, decimals) - std::round(step * std::pow(10.0, decimals))) > 1e-9)
        ++decimals;
    return decimals;
}

// The value axis: the data's extent widened to whole steps.
std::vector<double> valueTicks(double& v0, double& v1)
{
    if (v1 - v0 < 1e-12 * std::max(1.0, std::fabs(v0))) {
        const double pad = v0 == 0.0 ? 1.0 : std::fabs(v0) * 0.1;
        v0 -= pad;
        v1 += pad;
    }
    const double step = roundStep(v1 - v0, kValueTicksWanted);
    v0 = std::floor(v0 / step) * step;
    v1 = std::ceil(v1 / step) * step;
    std::vector<double> ticks;
    for (double v = v0; v <= v1 + step * 0.5; v += step)
        ticks.push_back(std::fabs(v) < step * 1e-9 ? 0.0 : v);
    return ticks;
}

struct TimeTick {
    long long t;
    QString label;
    QString dateLabel;   // a second line where the day changes
};

long long ceilToStep(long long t, long long step, long long anchor)
{
    long long k = (t - anchor) / step;
    if (anchor + k * step < t)
        ++k;
    return anchor + k * step;
}

std::vector<TimeTick> fixedTimeTicks(long long t0, long long t1, long long step)
{
    const QString timeFormat = step < kMinuteMs ? QStringLiteral("HH:mm:ss") : QStringLiteral("HH:mm");
    const long long anchor = step == 7 * kDayMs ? kFirstMondayMs : 0;
    std::vector<TimeTick> ticks;
    QDate lastDate;
    for (long long t = ceilToStep(t0, step, anchor); t <= t1; t += step) {
        const QDateTime d = utc(t);
        TimeTick tick{t, QString(), QString()};
        if (step >= kDayMs) {
            tick.label = d.toString(QStringLiteral("ddd MM-dd"));
        } else {
            tick.label = d.toString(timeFormat);
            if (d.date() != lastDate)
                tick.dateLabel = d.toString(QStringLiteral("ddd MM-dd"));
        }
        lastDate = d.date();
        ticks.push_back(tick);
    }
    return ticks;
}

std::vector<TimeTick> calendarTimeTicks(long long t0, long long t1, int months)
{
    const QDate first = utc(t0).date();
    QDate d(first.year(), 1, 1);
    while (QDateTime(d, QTime(0, 0), Qt::UTC).toMSecsSinceEpoch() < t0)
        d = d.addMonths(months);
    std::vector<TimeTick> ticks;
    for (long long t = QDateTime(d, QTime(0, 0), Qt::UTC).toMSecsSinceEpoch(); t <= t1;
         d = d.addMonths(months), t = QDateTime(d, QTime(0, 0), Qt::UTC).toMSecsSinceEpoch())
        ticks.push_back({t, d.toString(months >= 12 ? QStringLiteral("yyyy") : QStringLiteral("yyyy-MM")), QString()});
    return ticks;
}

// Ticks on round UTC times: seconds up to weeks, then months and years.
std::vector<TimeTick> timeTicks(long long t0, long long t1)
{
    static const long long fixedSteps[] = {
        kSecondMs,      2 * kSecondMs,  5 * kSecondMs,  10 * kSecondMs, 15 * kSecondMs, 30 * kSecondMs,
        kMinuteMs,      2 * kMinuteMs,  5 * kMinuteMs,  10 * kMinuteMs, 15 * kMinuteMs, 30 * kMinuteMs,
        kHourMs,        2 * kHourMs,    3 * kHourMs,    6 * kHourMs,    12 * kHourMs,   kDayMs,
        2 * kDayMs,     7 * kDayMs,
    };
    const long long span = t1 - t0;
    for (const long long step : fixedSteps)
        if (span / step <= kMostTimeTicks)
            return fixedTimeTicks(t0, t1, step);
    for (const int months : {1, 2, 3, 6, 12, 24, 60, 120, 240, 600, 1200})
        if (span / (months * 30 * kDayMs) <= kMostTimeTicks)
            return calendarTimeTicks(t0, t1, months);
    return calendarTimeTicks(t0, t1, 2400);
}

// Thinning to the pixel columns: of each column's points the first, the
// lowest, the highest and the last stay, in time order.
class ColumnThinner {
public:
    explicit ColumnThinner(const Frame& frame) : frame(frame) {}

    void add(long long t, double v)
    {
        const auto column = static_cast<long long>(std::floor(frame.x(t)));
        if (!kept.empty() && column != currentColumn)
            flushColumn();
        currentColumn = column;
        kept.push_back({t, v});
    }

    // The points so far, as SVG coordinates; the thinner starts afresh.
    QString finish()
    {
        flushColumn();
        return std::exchange(text, QString());
    }

private:
    void flushColumn()
    {
        if (kept.empty())
            return;
        std::vector<std::size_t> picks{0, kept.size() - 1};
        const auto [lo, hi] = std::minmax_element(kept.begin(), kept.end(),
                                                  [](const auto& a, const auto& b) { return a.second < b.second; });
        picks.push_back(std::size_t(lo - kept.begin()));
        picks.push_back(std::size_t(hi - kept.begin()));
        std::sort(picks.begin(), picks.end());
        picks.erase(std::unique(picks.begin(), picks.end()), picks.end());
        for (const std::size_t i : picks)
            text += num(frame.x(kept[i].first)) + u',' + num(frame.y(kept[i].second)) + u' ';
        kept.clear();
    }

    const Frame& frame;
    long long currentColumn = 0;
    std::vector<std::pair<long long, double>> kept;
    QString text;
};

void drawLine(QXmlStreamWriter& svg, const ChartLine& line, const Frame& frame, const char* colour)
{
    auto flush = [&](ColumnThinner& thinner) {
        const QString points = thinner.finish().trimmed();
        if (!points.isEmpty())
            element(svg, "polyline",
                    {{"fill", QStringLiteral("none")},
                     {"stroke", QLatin1String(colour)},
                     {"stroke-width", QStringLiteral("1.5")},
                     {"stroke-linejoin", QStringLiteral("round")},
                     {"points", points}});
    };
    ColumnThinner thinner(frame);
    for (const auto& [t, v] : line.points) {
        if (std::isfinite(v)) {
            thinner.add(t, v);
            continue;
        }
        flush(thinner);
    }
    flush(thinner);
}

// The band as polygons between the gaps: lows forward, highs back, each
// column reduced to its lowest low and highest high.
void drawBand(QXmlStreamWriter& svg, const ChartBand& band, const Frame& frame, const char* fill, const char* edge)
{
    struct Column {
        double x, low, high;
    };
    std::vector<Column> columns;
    auto flush = [&]() {
        if (columns.empty())
            return;
        QString forward;
        QString back;
        for (const Column& c : columns)
            forward += num(c.x) + u',' + num(frame.y(c.low)) + u' ';
        for (auto it = columns.rbegin(); it != columns.rend(); ++it)
            back += num(it->x) + u',' + num(frame.y(it->high)) + u' ';
        element(svg, "polygon",
                {{"fill", QLatin1String(fill)},
                 {"fill-opacity", QStringLiteral("0.45")},
                 {"stroke", QLatin1String(edge)},
                 {"stroke-width", QStringLiteral("0.6")},
                 {"points", (forward + back).trimmed()}});
        columns.clear();
    };
    for (const BandPoint& p : band.points) {
        if (!std::isfinite(p.low) || !std::isfinite(p.high)) {
            flush();
            continue;
        }
        const double x = std::floor(frame.x(p.t)) + 0.5;
        if (!columns.empty() && columns.back().x == x) {
            columns.back().low = std::min(columns.back().low, p.low);
            columns.back().high = std::max(columns.back().high, p.high);
        } else {
            columns.push_back({x, std::min(p.low, p.high), std::max(p.low, p.high)});
        }
    }
    flush();
}

void drawAxes(QXmlStreamWriter& svg, const Frame& f, const std::vector<double>& vTicks, const std::vector<TimeTick>& tTicks)
{
    const double bottom = f.top + f.height;
    const int decimals = vTicks.size() > 1 ? decimalsFor(vTicks[1] - vTicks[0]) : 0;
    for (const double v : vTicks) {
        const double y = f.y(v);
        element(svg, "line",
                {{"x1", num(f.left)}, {"y1", num(y)}, {"x2", num(f.left + f.width)}, {"y2", num(y)},
                 {"stroke", QStringLiteral("#e3e3e3")}});
        element(svg, "text", {{"x", num(f.left - 6)}, {"y", num(y + 4)}, {"text-anchor", QStringLiteral("end")}},
                QString::number(v, 'f', decimals));
    }
    for (const TimeTick& tick : tTicks) {
        const double x = f.x(tick.t);
        element(svg, "line",
                {{"x1", num(x)}, {"y1", num(f.top)}, {"x2", num(x)}, {"y2", num(bottom)},
                 {"stroke", QStringLiteral("#e3e3e3")}});
        element(svg, "text", {{"x", num(x)}, {"y", num(bottom + 16)}, {"text-anchor", QStringLiteral("middle")}},
                tick.label);
        if (!tick.dateLabel.isEmpty())
            element(svg, "text",
                    {{"x", num(x)}, {"y", num(bottom + 30)}, {"text-anchor", QStringLiteral("middle")},
                     {"fill", QStringLiteral("#555")}},
                    tick.dateLabel);
    }
    element(svg, "rect",
            {{"x", num(f.left)}, {"y", num(f.top)}, {"width", num(f.width)}, {"height", num(f.height)},
             {"fill", QStringLiteral("none")}, {"stroke", QStringLiteral("#888")}});
    element(svg, "text",
            {{"x", num(f.left + f.width)}, {"y", num(bottom + 44)}, {"text-anchor", QStringLiteral("end")},
             {"fill", QStringLiteral("#555")}},
            QStringLiteral("time (UTC)"));
}

void drawLegend(QXmlStreamWriter& svg, const Chart& chart, const Frame& f)
{
    double x = f.left;
    const double y = f.top - 12;
    auto label = [&](const QString& text) {
        element(svg, "text", {{"x", num(x + 22)}, {"y", num(y + 4)}}, text);
        x += 40 + 7 * double(text.size());
    };
    for (std::size_t i = 0; i < chart.bands.size(); ++i) {
        element(svg, "rect",
                {{"x", num(x)}, {"y", num(y - 5)}, {"width", QStringLiteral("16")}, {"height", QStringLiteral("10")},
                 {"fill", QLatin1String(kBandColours[i % 4])}, {"fill-opacity", QStringLiteral("0.45")}});
        label(chart.bands[i].label);
    }
    for (std::size_t i = 0; i < chart.lines.size(); ++i) {
        element(svg, "line",
                {{"x1", num(x)}, {"y1", num(y)}, {"x2", num(x + 16)}, {"y2", num(y)},
                 {"stroke", QLatin1String(kLineColours[i % 4])}, {"stroke-width", QStringLiteral("2")}});
        label(chart.lines[i].label);
    }
}

} // namespace

bool renderSvg(const Chart& chart, QString& svg)
{
    long long t0 = 0, t1 = 0;
    double v0 = 0, v1 = 0;
    if (!extentOf(chart, t0, t1, v0, v1))
        return false;
    if (t0 == t1) {   // one instant: a minute around it
        t0 -= 30 * kSecondMs;
        t1 += 30 * kSecondMs;
    }
    const std::vector<double> vTicks = valueTicks(v0, v1);
    const std::vector<TimeTick> tTicks = timeTicks(t0, t1);
    const Frame frame{72.0, 70.0, chart.width - 72.0 - 24.0, chart.height - 70.0 - 56.0, t0, t1, v0, v1};

    svg.clear();
    QXmlStreamWriter w(&svg);
    w.setAutoFormatting(true);
    w.setAutoFormattingIndent(0);
    w.writeStartDocument();
    w.writeStartElement(QStringLiteral("svg"));
    w.writeDefaultNamespace(QStringLiteral("http://www.w3.org/2000/svg"));
    const QString width = QString::number(chart.width);
    const QString height = QString::number(chart.height);
    for (const auto& [key, value] : Attributes{{"width", width},
                                               {"height", height},
                                               {"viewBox", QStringLiteral("0 0 %1 %2").arg(width, height)},
                                               {"font-family", QStringLiteral("sans-serif")},
                                               {"font-size", QStringLiteral("12")}})
        w.writeAttribute(QLatin1String(key), value);
    element(w, "rect", {{"width", QStringLiteral("100%")}, {"height", QStringLiteral("100%")},
                        {"fill", QStringLiteral("white")}});
    element(w, "text",
            {{"x", num(frame.left)}, {"y", QStringLiteral("22")}, {"font-size", QStringLiteral("16")},
             {"font-weight", QStringLiteral("bold")}},
            chart.title);
    element(w, "text", {{"x", num(frame.left)}, {"y", QStringLiteral("40")}, {"fill", QStringLiteral("#555")}},
            chart.subtitle);
    drawAxes(w, frame, vTicks, tTicks);
    for (std::size_t i = 0; i < chart.bands.size(); ++i)
        drawBand(w, chart.bands[i], frame, kBandColours[i % 4], kLineColours[i % 4]);
    for (std::size_t i = 0; i < chart.lines.size(); ++i)
        drawLine(w, chart.lines[i], frame, kLineColours[i % 4]);
    drawLegend(w, chart, frame);
    w.writeEndDocument();
    svg += u'\n';
    return true;
}

} // namespace kelts
