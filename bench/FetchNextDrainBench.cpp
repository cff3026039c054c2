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

#include <chrono>
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
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto finishing = static_cast<Finishing>(state.range(1));
    const auto interpreter = kvm::KVM::create();

    double seconds = 0;
    std::size_t calls = 0;
    for (auto _ : state) {
        DrainFutures made = makeFutures(count, finishing);
        std::optional<RandomFinisher> finisher;
        if (finishing == Finishing::During) {
            finisher.emplace(made.tasks);
        }
        const auto start = std::chrono::steady_clock::now();
        if (finisher) {
            finisher->start();
        }
        const std::optional<std::size_t> fetched = drain(made.futures);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        seconds += took.count();
        calls += count + 1;
        if (fetched != count) {
            state.SkipWithError("the drain did not fetch every future");
            break;
        }
    }
    reportDrain(state, seconds, calls);
}

} // namespace

BENCHMARK(BM_FetchNextDrain)
    ->ArgNames({"N", "during"})
    ->ArgsProduct({{1'000, 10'000, 100'000},
                   {int64_t(Finishing::Before), int64_t(Finishing::During)}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
