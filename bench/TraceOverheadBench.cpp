// What a function trace costs while tracing is off: two out-of-line functions
// with the same body, one of them traced on a logger of its own whose switch
// word is left at its default (off). The difference of the two is the price
// every traced operation of the library pays when nobody is looking.
//
// FunctionTrace's out-of-line parts are not exported by the library, so this
// program compiles the library's DiagnosticLogging.cpp itself.

#include "DiagnosticLogging.hpp"

#include <benchmark/benchmark.h>

namespace {

namespace logging = parallel::language::future::logging;

logging::Logger logger("bench::Trace");

long long gCounter = 0;

__attribute__((noinline)) void untracedCall() {
    ++gCounter;
    benchmark::DoNotOptimize(gCounter);
}

__attribute__((noinline)) void tracedCall() {
    QZ_FUTURE_TRACE(logger);
    ++gCounter;
    benchmark::DoNotOptimize(gCounter);
}

void BM_UntracedCall(benchmark::State& state) {
    for (auto _ : state) {
        untracedCall();
    }
}

void BM_TracedCall_TracingOff(benchmark::State& state) {
    for (auto _ : state) {
        tracedCall();
    }
}

} // namespace

BENCHMARK(BM_UntracedCall);
BENCHMARK(BM_TracedCall_TracingOff);

BENCHMARK_MAIN();
