#pragma once

#include <QLatin1StringView>

#include <span>

namespace corv::ctl {

// A metric, which every reader knows by its name for ever: a name is never given another meaning.
struct Metric
{
    const char *name;
    const char *type;   // "gauge" or "counter", whose names end in _total
    const char *labels; // the names of its labels, parted by blanks; their values are bounded by what the server has
    const char *help;   // one sentence for whoever is on call
};

// All of them, in the order in which they are printed.
std::span<const Metric> allMetrics();

// The one with that name; null for none.
const Metric *metricNamed(QLatin1StringView name);

} // namespace corv::ctl
