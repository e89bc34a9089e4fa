// A trend chart as a self-contained SVG document: a UTC time axis with ticks
// on round times, a value axis with round steps, lines for series values
// and a shaded band between minimum and maximum. Long series are thinned to
// the extremes of each pixel column, so the file stays small and every peak
// stays visible.
#pragma once

#include <QString>

#include <cmath>
#include <vector>

namespace kelts {

struct ChartLine {
    QString label;
    // Points in time order; a NaN value breaks the line (a gap).
    std::vector<std::pair<long long, double>> points;
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
    std::vector<ChartLine> lines;
    std::vector<ChartBand> bands;
    int width = 960;
    int height = 440;
};

// False (and no text) when the chart holds no value to draw.
bool renderSvg(const Chart& chart, QString& svg);

} // namespace kelts
