#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

// What the benchmark drivers share: medians of both sides of a comparison, taken alternately in one run, as a table
// row.
namespace bench {

using Clock = std::chrono::steady_clock;

template <typename Work>
double microseconds(Work work)
{
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

inline double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

inline void row(const std::string &what, const std::string &ours, const std::string &reference,
                const std::string &ratio, const std::string &limit)
{
    std::printf("| %s | %s | %s | %s | %s |\n", what.c_str(), ours.c_str(), reference.c_str(), ratio.c_str(),
                limit.c_str());
}

inline std::string number(double value, const char *unit = "", int digits = 2)
{
    char text[64];
    (void)std::snprintf(text, sizeof text, "%.*f%s", digits, value, unit);
    return text;
}

} // namespace bench
