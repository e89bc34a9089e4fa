// Fuzzes what kelts serve reads from a Graphite client: the first line is a
// target expression, the second a time, the third an interval, the fourth a
// glob matched against the fifth. Nothing may crash or run away; a parsed
// target must keep the limits on its depth.

#include "GraphiteQuery.h"

#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

int depthOf(const kelts::Target& t)
{
    int deepest = 0;
    for (const kelts::Target& a : t.args)
        deepest = std::max(deepest, depthOf(a));
    return deepest + 1;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QStringList lines = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size)).split(u'\n');
    QString why;
    kelts::Target target;
    if (kelts::parseTarget(lines.value(0), target, why) && depthOf(target) > kelts::kMaxTargetDepth + 2)
        std::abort();
    long long ms = 0;
    kelts::parseGraphiteTime(lines.value(1), 1714521600000LL, ms, why);
    long long interval = 0;
    kelts::parseGraphiteInterval(lines.value(2), true, interval, why);
    kelts::globMatches(lines.value(3), lines.value(4));
    return 0;
}
