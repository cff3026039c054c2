// Draining N futures with repeated FutureBase::fetchNext(futures, 1, no
// timeout) until it answers NoUnreadFutures, on one vector. No pool is
// involved: the futures are FevalFutures over bench tasks, finished before
// the drain (argument Finishing::Before) or finished by another thread in a
// random order while the drain waits (Finishing::During).
//
// The drain should cost the same per call whatever N is: counters
// ns_per_call (time over the N + 1 calls) and ms_per_drain.

#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <kvm/KVM.hpp>

#include "FetchNextDrainSupport.hpp"

#include <benchmark/benchmark.h>

#include <limits>

namespace {

namespace pf = parallel::language::future;
using namespace bench::drain;

// Calls fetchNext until it answers something else than Fetched; the number
// of futures fetched, or none when that answer was not NoUnreadFutures.
std::optional<std::size_t> drain(const Futures& futures) {
    const pf::Seconds noTimeout(std::numeric_limits<double>::max());
    for (std::size_t fetched = 0;; ++fetched) {
        const auto [state, index, outputs] = pf::FutureBase::fetchNext(futures, 1, noTimeout);
        if (state != pf::FetchNextState::Fetched) {
            return state == pf::FetchNextState::NoUnreadFutures ? std::optional(fetched)
                                                                : std::nullopt;
        }
        benchmark::DoNotOptimize(index);
        benchmark::DoNotOptimize(outputs.data());
    }
}

void BM_FetchNextDrain(benchmark::State& state) {
    const auto interpreter = kvm::KVM::create();
    timeDrains(state, [](DrainFutures& made) {
        return [&futures = made.futures] { return drain(futures); };
    });
}

} // namespace

BENCHMARK(BM_FetchNextDrain)->Apply(drainArguments);

BENCHMARK_MAIN();
