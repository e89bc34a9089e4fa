// Turning reads into a chart and a chart into an SVG file; used by the plot
// command and by the demo.
#pragma once

#include "SvgChart.h"

#include "Interpolate.h"

#include <QString>

#include <vector>

namespace kelts {

// Values as a line; a null value (fillNull) leaves a gap.
ChartLine chartLineOf(const QString& label, const std::vector<Kel::Interpolate::DataRecord>& records);
// The results of a minMax read, the minimum of each interval followed by its
// maximum 1 ms later, as a band.
ChartBand chartBandOfMinMax(const QString& label, const std::vector<Kel::Interpolate::DataRecord>& records);

// Throws NothingFound for a chart without values and UsageError when the
// file cannot be written.
void writeSvgFile(const Chart& chart, const QString& path);

} // namespace kelts
