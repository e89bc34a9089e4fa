// Drawing of the trend chart: scales, ticks, thinned lines and bands.

#include "SvgChart.h"

#include "TimeText.h"

#include <QDateTime>
#include <QStringList>
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

QDateTime wallTime(long long ms, const QTimeZone& zone)
{
    return QDateTime::fromMSecsSinceEpoch(ms, zone);
}

// Width of a label in pixels at the chart's 12 px font, estimated: no font
// is at hand when the file is written.
double textWidth(const QString& text)
{
    return 7.0 * double(text.size());
}

// A line breaks where its points lie further apart than this many of its
// usual steps.
constexpr long long kGapSteps = 5;

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
        for (const auto& [t, v] : line.points) {
            take(t, v);
            if (line.style == ChartLine::Style::Bars && std::isfinite(v))
                take(line.barsStartAtPoint ? t + line.barMs : t - line.barMs, 0.0);
        }
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

// Ticks on round wall-clock times of the zone: counted on the clock's face
// as if it were UTC, then placed where the zone's clock shows them (a time
// the clocks skip gets no tick).
std::vector<TimeTick> fixedTimeTicks(long long t0, long long t1, long long step, const QTimeZone& zone)
{
    const QString timeFormat = step < kMinuteMs ? QStringLiteral("HH:mm:ss") : QStringLiteral("HH:mm");
    const long long anchor = step == 7 * kDayMs ? kFirstMondayMs : 0;
    std::vector<TimeTick> ticks;
    QDate lastDate;
    const long long offset0 = zone.offsetFromUtc(wallTime(t0, zone)) * kSecondMs;
    const long long lastWall = t1 + offset0 + 2 * kDayMs;
    for (long long wall = ceilToStep(t0 + offset0 - kDayMs, step, anchor); wall <= lastWall; wall += step) {
        const QDateTime face = QDateTime::fromMSecsSinceEpoch(wall, Qt::UTC);
        const long long t = QDateTime(face.date(), face.time(), zone).toMSecsSinceEpoch();
        if (t < t0 || t > t1 || wallTime(t, zone).time() != face.time())
            continue;
        const QDateTime d = face;
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

std::vector<TimeTick> calendarTimeTicks(long long t0, long long t1, int months, const QTimeZone& zone)
{
    const QDate first = wallTime(t0, zone).date();
    QDate d(first.year(), 1, 1);
    while (QDateTime(d, QTime(0, 0), zone).toMSecsSinceEpoch() < t0)
        d = d.addMonths(months);
    std::vector<TimeTick> ticks;
    for (long long t = QDateTime(d, QTime(0, 0), zone).toMSecsSinceEpoch(); t <= t1;
         d = d.addMonths(months), t = QDateTime(d, QTime(0, 0), zone).toMSecsSinceEpoch())
        ticks.push_back({t, d.toString(months >= 12 ? QStringLiteral("yyyy") : QStringLiteral("yyyy-MM")), QString()});
    return ticks;
}

// Ticks on round times of the zone: seconds up to weeks, then months and
// years.
std::vector<TimeTick> timeTicks(long long t0, long long t1, const QTimeZone& zone)
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
            return fixedTimeTicks(t0, t1, step, zone);
    for (const int months : {1, 2, 3, 6, 12, 24, 60, 120, 240, 600, 1200})
        if (span / (months * 30 * kDayMs) <= kMostTimeTicks)
            return calendarTimeTicks(t0, t1, months, zone);
    return calendarTimeTicks(t0, t1, 2400, zone);
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

// The usual step between a line's points: the median.
long long usualStep(const ChartLine& line)
{
    std::vector<long long> steps;
    for (std::size_t i = 1; i < line.points.size(); ++i)
        if (line.points[i].first > line.points[i - 1].first)
            steps.push_back(line.points[i].first - line.points[i - 1].first);
    if (steps.empty())
        return 0;
    std::nth_element(steps.begin(), steps.begin() + long(steps.size() / 2), steps.end());
    return steps[steps.size() / 2];
}

void drawBars(QXmlStreamWriter& svg, const ChartLine& line, const Frame& frame, const char* colour)
{
    const double zero = frame.y(0.0);
    for (const auto& [t, v] : line.points) {
        if (!std::isfinite(v))
            continue;
        const double x0 = frame.x(line.barsStartAtPoint ? t : t - line.barMs);
        const double x1 = frame.x(line.barsStartAtPoint ? t + line.barMs : t);
        const double y = frame.y(v);
        // A hair of space between bars where they are wide enough to show it.
        const double gap = x1 - x0 > 4.0 ? 1.0 : 0.0;
        element(svg, "rect",
                {{"x", num(x0 + gap / 2)}, {"y", num(std::min(y, zero))}, {"width", num(std::max(0.5, x1 - x0 - gap))},
                 {"height", num(std::max(0.5, std::fabs(zero - y)))}, {"fill", QLatin1String(colour)},
                 {"fill-opacity", QStringLiteral("0.8")}});
    }
}

void drawLine(QXmlStreamWriter& svg, const ChartLine& line, const Frame& frame, const char* colour)
{
    if (line.style == ChartLine::Style::Bars)
        return drawBars(svg, line, frame, colour);
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
    const long long step = usualStep(line);
    const long long longestJoined = step > 0 ? kGapSteps * step : std::numeric_limits<long long>::max();
    const bool steps = line.style == ChartLine::Style::Steps;
    ColumnThinner thinner(frame);
    bool joined = false;
    long long lastT = 0;
    double lastV = 0.0;
    for (const auto& [t, v] : line.points) {
        if (!std::isfinite(v) || (joined && t - lastT > longestJoined)) {
            flush(thinner);
            joined = false;
            if (!std::isfinite(v))
                continue;
        }
        if (steps && joined)
            thinner.add(t, lastV);   // held until this point, then the step
        thinner.add(t, v);
        joined = true;
        lastT = t;
        lastV = v;
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

QStringList valueLabels(const std::vector<double>& vTicks)
{
    const int decimals = vTicks.size() > 1 ? decimalsFor(vTicks[1] - vTicks[0]) : 0;
    QStringList labels;
    for (const double v : vTicks)
        labels << QString::number(v, 'f', decimals);
    return labels;
}

// A label centred under x, moved inside the chart where it would be cut off.
void timeLabel(QXmlStreamWriter& svg, double x, double y, double chartWidth, const QString& text, const char* fill)
{
    const double half = textWidth(text) / 2;
    QString anchor = QStringLiteral("middle");
    if (x + half > chartWidth - 4) {
        anchor = QStringLiteral("end");
        x = chartWidth - 4;
    } else if (x - half < 4) {
        anchor = QStringLiteral("start");
        x = 4;
    }
    element(svg, "text", {{"x", num(x)}, {"y", num(y)}, {"text-anchor", anchor}, {"fill", QLatin1String(fill)}}, text);
}

struct Layout {
    Frame frame;
    double chartWidth;
    std::vector<std::pair<double, double>> legendAt;   // where each legend entry starts (bands, then lines)
};

void drawAxes(QXmlStreamWriter& svg, const Chart& chart, const Layout& layout, const std::vector<double>& vTicks,
              const std::vector<TimeTick>& tTicks)
{
    const Frame& f = layout.frame;
    const double bottom = f.top + f.height;
    const QStringList labels = valueLabels(vTicks);
    for (std::size_t i = 0; i < vTicks.size(); ++i) {
        const double y = f.y(vTicks[i]);
        element(svg, "line",
                {{"x1", num(f.left)}, {"y1", num(y)}, {"x2", num(f.left + f.width)}, {"y2", num(y)},
                 {"stroke", QStringLiteral("#e3e3e3")}});
        element(svg, "text", {{"x", num(f.left - 6)}, {"y", num(y + 4)}, {"text-anchor", QStringLiteral("end")}},
                labels[qsizetype(i)]);
    }
    if (!chart.unit.isEmpty()) {
        const double middle = f.top + f.height / 2;
        element(svg, "text",
                {{"x", QStringLiteral("16")}, {"y", num(middle)}, {"text-anchor", QStringLiteral("middle")},
                 {"fill", QStringLiteral("#555")}, {"transform", QStringLiteral("rotate(-90 16 %1)").arg(num(middle))}},
                chart.unit);
    }
    for (const TimeTick& tick : tTicks) {
        const double x = f.x(tick.t);
        element(svg, "line",
                {{"x1", num(x)}, {"y1", num(f.top)}, {"x2", num(x)}, {"y2", num(bottom)},
                 {"stroke", QStringLiteral("#e3e3e3")}});
        timeLabel(svg, x, bottom + 16, layout.chartWidth, tick.label, "#000");
        if (!tick.dateLabel.isEmpty())
            timeLabel(svg, x, bottom + 30, layout.chartWidth, tick.dateLabel, "#555");
    }
    element(svg, "rect",
            {{"x", num(f.left)}, {"y", num(f.top)}, {"width", num(f.width)}, {"height", num(f.height)},
             {"fill", QStringLiteral("none")}, {"stroke", QStringLiteral("#888")}});
    const QString zoneName = chart.zone == QTimeZone::utc() ? QStringLiteral("UTC") : QString::fromUtf8(chart.zone.id());
    element(svg, "text",
            {{"x", num(f.left + f.width)}, {"y", num(bottom + 44)}, {"text-anchor", QStringLiteral("end")},
             {"fill", QStringLiteral("#555")}},
            QStringLiteral("time (%1)").arg(zoneName));
}

// Legend entries: a swatch and a label each, in rows that fit the chart.
std::vector<QString> legendLabels(const Chart& chart)
{
    std::vector<QString> labels;
    for (const ChartBand& band : chart.bands)
        labels.push_back(band.label);
    for (const ChartLine& line : chart.lines)
        labels.push_back(line.label);
    return labels;
}

std::vector<std::pair<double, double>> legendPositions(const Chart& chart, double left, double firstRowY)
{
    std::vector<std::pair<double, double>> at;
    double x = left;
    double y = firstRowY;
    for (const QString& label : legendLabels(chart)) {
        const double width = 22 + textWidth(label) + 18;
        if (x > left && x + width > chart.width - 8) {
            x = left;
            y += 16;
        }
        at.push_back({x, y});
        x += width;
    }
    return at;
}

void drawLegend(QXmlStreamWriter& svg, const Chart& chart, const Layout& layout)
{
    const std::vector<QString> labels = legendLabels(chart);
    for (std::size_t i = 0; i < labels.size(); ++i) {
        const auto [x, y] = layout.legendAt[i];
        if (i < chart.bands.size()) {
            element(svg, "rect",
                    {{"x", num(x)}, {"y", num(y - 5)}, {"width", QStringLiteral("16")}, {"height", QStringLiteral("10")},
                     {"fill", QLatin1String(kBandColours[i % 4])}, {"fill-opacity", QStringLiteral("0.45")}});
        } else {
            const std::size_t line = i - chart.bands.size();
            const char* colour = kLineColours[line % 4];
            if (chart.lines[line].style == ChartLine::Style::Bars)
                element(svg, "rect",
                        {{"x", num(x)}, {"y", num(y - 5)}, {"width", QStringLiteral("16")}, {"height", QStringLiteral("10")},
                         {"fill", QLatin1String(colour)}, {"fill-opacity", QStringLiteral("0.8")}});
            else
                element(svg, "line",
                        {{"x1", num(x)}, {"y1", num(y)}, {"x2", num(x + 16)}, {"y2", num(y)},
                         {"stroke", QLatin1String(colour)}, {"stroke-width", QStringLiteral("2")}});
        }
        element(svg, "text", {{"x", num(x + 22)}, {"y", num(y + 4)}}, labels[i]);
    }
}

// A title longer than the chart is wide ends in an ellipsis.
QString fitted(const QString& text, double width, double charWidth)
{
    const qsizetype room = qsizetype(width / charWidth);
    return text.size() <= room ? text : text.left(std::max<qsizetype>(1, room - 1)) + QChar(0x2026);
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
    const std::vector<TimeTick> tTicks = timeTicks(t0, t1, chart.zone);
    // The left margin holds the widest value label and the unit, written
    // upwards beside them; the top, the title, the subtitle and as many
    // legend rows as the labels need.
    double left = 0.0;
    for (const QString& label : valueLabels(vTicks))
        left = std::max(left, 16.0 + textWidth(label));
    left = std::max(72.0, left + (chart.unit.isEmpty() ? 0.0 : 24.0));
    Layout layout{{left, 0.0, 0.0, 0.0, t0, t1, v0, v1}, double(chart.width), {}};
    layout.legendAt = legendPositions(chart, left, 58.0);
    const double legendBottom = layout.legendAt.empty() ? 58.0 : layout.legendAt.back().second;
    layout.frame.top = legendBottom + 12.0;
    layout.frame.width = chart.width - left - 24.0;
    layout.frame.height = chart.height - layout.frame.top - 56.0;
    const Frame& frame = layout.frame;

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
            {{"x", QStringLiteral("8")}, {"y", QStringLiteral("22")}, {"font-size", QStringLiteral("16")},
             {"font-weight", QStringLiteral("bold")}},
            fitted(chart.title, chart.width - 16.0, 9.5));
    element(w, "text", {{"x", QStringLiteral("8")}, {"y", QStringLiteral("40")}, {"fill", QStringLiteral("#555")}},
            fitted(chart.subtitle, chart.width - 16.0, 7.0));
    drawAxes(w, chart, layout, vTicks, tTicks);
    for (std::size_t i = 0; i < chart.bands.size(); ++i)
        drawBand(w, chart.bands[i], frame, kBandColours[i % 4], kLineColours[i % 4]);
    for (std::size_t i = 0; i < chart.lines.size(); ++i)
        drawLine(w, chart.lines[i], frame, kLineColours[i % 4]);
    drawLegend(w, chart, layout);
    w.writeEndDocument();
    svg += u'\n';
    return true;
}

} // namespace kelts
