// The trend page of kelts serve: one self-contained HTML file with its
// script, kept as TrendPage.html beside this header and built into the tool.
#pragma once

namespace kelts {

extern const char kTrendPage[];

} // namespace kelts
