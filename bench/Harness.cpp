// Repeated runs and their summary.

#include "Harness.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace bench {

double now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

Rates summarize(std::vector<double> rates)
{
    Rates r;
    if (rates.empty())
        return r;
    std::sort(rates.begin(), rates.end());
    r.runs = int(rates.size());
    r.min = rates.front();
    r.max = rates.back();
    r.median = rates[(rates.size() - 1) / 2];
    return r;
}

Rates repeat(const RunPlan& plan, double items, const std::function<double(int)>& run)
{
    std::vector<double> rates;
    int runs = plan.runs;
    for (int i = 0; i < runs; ++i) {
        ::sync();
        const double seconds = run(i);
        rates.push_back(seconds > 0.0 ? items / seconds : 0.0);
        if (i == 0 && seconds > plan.slowSeconds)
            runs = std::min(plan.runs, plan.slowRuns);
    }
    return summarize(rates);
}

std::string shortNumber(double value)
{
    static const char* const prefixes[] = {"", "k", "M", "G", "T"};
    int prefix = 0;
    while (std::fabs(value) >= 999.5 && prefix < 4) {
        value /= 1000.0;
        ++prefix;
    }
    char text[32];
    const int decimals = std::fabs(value) >= 99.95 ? 0 : std::fabs(value) >= 9.995 ? 1 : 2;
    std::snprintf(text, sizeof text, "%.*f%s", prefix == 0 ? std::min(decimals, 1) : decimals, value,
                  prefixes[prefix]);
    return text;
}

} // namespace bench
