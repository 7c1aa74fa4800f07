// What the benchmark programs share: medians, turns, and one line a figure.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <vector>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace Bench {

inline double Median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

/// Seconds that each of the works takes, as medians: they take turns, so that what slows the machine down for
/// a while slows all of them.
inline std::vector<double> SecondsInTurns(int rounds, const std::vector<std::function<void()>>& works)
{
    std::vector<std::vector<double>> seconds(works.size());
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < works.size(); ++i) {
            const auto start = std::chrono::steady_clock::now();
            works[i]();
            const std::chrono::duration<double> span = std::chrono::steady_clock::now() - start;
            seconds[i].push_back(span.count());
        }
    }
    std::vector<double> medians;
    for (const std::vector<double>& each : seconds)
        medians.push_back(Median(each));
    return medians;
}

inline double Seconds(int rounds, const std::function<void()>& work)
{
    return SecondsInTurns(rounds, {work})[0];
}

#ifdef __GLIBC__
/// Bytes of the heap that are in use.
inline std::size_t AllocatedBytes()
{
    const struct mallinfo2 memory = mallinfo2();
    return memory.uordblks + memory.hblkhd;
}
#endif

/// "name TAB value TAB unit": what bench/run.sh reads.
inline void PrintRow(const char* name, double value, const char* unit)
{
    std::printf("%s\t%.6g\t%s\n", name, value, unit);
    std::fflush(stdout);
}

} // namespace Bench
