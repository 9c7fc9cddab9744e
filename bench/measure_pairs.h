// Two ways of doing the same, timed in turns, and how they compare: the median of the pairs' ratios is what
// counts, so that a busy machine slows both alike.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

namespace bench {

struct pair_times {
    double first;  // median seconds
    double second; // median seconds
    double ratio;  // median of second / first: above 1 the first one is the faster
};

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

template <class F> double seconds_of(F&& action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Runs each once uncounted, and then `runs` pairs.
template <class F, class G> pair_times in_turns(std::size_t runs, F&& first, G&& second) {
    first();
    second();
    std::vector<double> firsts;
    std::vector<double> seconds;
    std::vector<double> ratios;
    for (std::size_t run = 0; run < runs; ++run) {
        firsts.push_back(seconds_of(first));
        seconds.push_back(seconds_of(second));
        ratios.push_back(seconds.back() / firsts.back());
    }
    return {median(firsts), median(seconds), median(ratios)};
}

} // namespace bench
