// Draining N futures with repeated FutureBase::fetchNext(futures, 1, no
// timeout) until it answers NoUnreadFutures, on one vector. No pool is
// involved: the futures are FevalFutures over bench tasks, finished before
// the drain (argument Finishing::Before) or finished by another thread in a
// random order while the drain waits (Finishing::During).
//
// The drain should cost the same per call whatever N is: counters
// ns_per_call (time over the N + 1 calls) and ms_per_drain.
//
// BM_RandomOrderBareLoop is no drain: on one thread, the same futures in the
// order RandomFinisher finishes them, each future's task finished and its
// outputs read (finishing:1), or its outputs read only, all finished before
// (finishing:0: the drain's side of the walk). Its ns_per_future and
// cpu_ns_per_future are what walking those objects in that order costs;
// where they grow with N as the drain finishing during does, the growth is
// the memory's, not the drain's.

#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <kvm/KVM.hpp>

#include "FetchNextDrainSupport.hpp"

#include <benchmark/benchmark.h>

#include <limits>
#include <numeric>
#include <random>

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

void BM_RandomOrderBareLoop(benchmark::State& state) {
    const auto interpreter = kvm::KVM::create();
    const auto count = static_cast<std::size_t>(state.range(0));
    const bool finishing = state.range(1) != 0;
    double seconds = 0;
    double cpuSeconds = 0;
    for (auto _ : state) {
        const DrainFutures made =
            makeFutures(count, finishing ? Finishing::During : Finishing::Before);
        std::vector<std::size_t> order(count);
        std::iota(order.begin(), order.end(), std::size_t{0});
        // The permutation RandomFinisher applies to the tasks.
        std::shuffle(order.begin(), order.end(), std::mt19937(kFinishingSeed));
        const auto start = std::chrono::steady_clock::now();
        const auto cpuStart = threadCpuTime();
        for (const std::size_t index : order) {
            if (finishing) {
                made.tasks[index]->doNotifyFinished();
            }
            benchmark::DoNotOptimize(made.futures[index]->getOutputs());
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        cpuSeconds += (threadCpuTime() - cpuStart).count();
        state.SetIterationTime(took.count());
        seconds += took.count();
    }
    const double futures = double(count * state.iterations());
    state.counters["ns_per_future"] = seconds * 1e9 / futures;
    state.counters["cpu_ns_per_future"] = cpuSeconds * 1e9 / futures;
}

} // namespace

BENCHMARK(BM_FetchNextDrain)->Apply(drainArguments);
BENCHMARK(BM_RandomOrderBareLoop)
    ->ArgNames({"N", "finishing"})
    ->ArgsProduct({{1'000, 10'000, 100'000}, {0, 1}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
