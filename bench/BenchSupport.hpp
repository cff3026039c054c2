#pragma once

// Pieces shared by the benchmarks.

#include "support/TestTask.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <optional>
#include <vector>

#include <unistd.h>

namespace bench {

// The resident set size of this process in bytes (Linux: /proc/self/statm).
inline double residentBytes() {
    std::ifstream statm("/proc/self/statm");
    double totalPages = 0.0;
    double residentPages = 0.0;
    statm >> totalPages >> residentPages;
    return residentPages * static_cast<double>(sysconf(_SC_PAGESIZE));
}

namespace pf = parallel::language::future;

// The task of an executor that does no work, shared with the tests: the
// benchmark drives its notifications; its outputs are `result`.
using BenchTask = pf::testing::TestTask;

// Sets the counters median_us and p99_us from latencies in nanoseconds.
inline void reportPercentiles(benchmark::State& state, std::vector<double> latencies) {
    if (latencies.empty()) {
        return;
    }
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](double fraction) {
        const auto rank = static_cast<std::size_t>(std::ceil(fraction * latencies.size()));
        return latencies[std::clamp<std::size_t>(rank, 1, latencies.size()) - 1] / 1e3;
    };
    state.counters["median_us"] = at(0.5);
    state.counters["p99_us"] = at(0.99);
}

// The main of a benchmark program whose results `Reporter` prints.
template <class Reporter>
int runWithReporter(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

} // namespace bench
