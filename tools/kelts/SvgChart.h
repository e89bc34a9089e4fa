// A trend chart as a self-contained SVG document: a time axis with ticks on
// round times (UTC, or local times of a zone), a value axis with round steps
// and a unit, lines, steps or bars for series values and a shaded band
// between minimum and maximum. Long series are thinned to the extremes of
// each pixel column, so the file stays small and every peak stays visible;
// a line breaks where records are missing for longer than a few of its
// usual steps. Labels are placed so that none is cut off.
#pragma once

#include <QString>
#include <QTimeZone>

#include <cmath>
#include <vector>

namespace kelts {

struct ChartLine {
    enum class Style {
        Line,    // straight from point to point
        Steps,   // each value held until the next (on/off signals)
        Bars,    // each value a bar over the interval before its point (consumption)
    };
    QString label;
    // Points in time order; a NaN value breaks the line (a gap).
    std::vector<std::pair<long long, double>> points;
    Style style = Style::Line;
    // For bars: the time each covers, ending at its point (or starting
    // there, when barsStartAtPoint).
    long long barMs = 0;
    bool barsStartAtPoint = false;
};

struct BandPoint {
    long long t;
    double low;    // NaN for a gap
    double high;
};

struct ChartBand {
    QString label;
    std::vector<BandPoint> points;
};

struct Chart {
    QString title;
    QString subtitle;
    QString unit;       // of the value axis, "kWh"
    QTimeZone zone = QTimeZone::utc();   // of the time axis
    std::vector<ChartLine> lines;
    std::vector<ChartBand> bands;
    int width = 960;
    int height = 440;
};

// False (and no text) when the chart holds no value to draw.
bool renderSvg(const Chart& chart, QString& svg);

} // namespace kelts
