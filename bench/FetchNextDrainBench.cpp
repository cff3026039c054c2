// Draining N futures that have all finished already with repeated
// FutureBase::fetchNext(futures, 1, timeout) until it answers NoUnreadFutures.
// No pool is involved: the futures are FevalFutures over tasks that were
// driven to Finished with one 1-by-1 output before the timed region.
//
// Each call walks the vector from the start past the futures already read, so
// the k-th call (from 1) examines k futures and the final NoUnreadFutures call
// examines all N: N(N+1)/2 + N in total. Counters: time per examined future
// (total time over that count) and time per fetchNext call.

#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/TaskBase.hpp>

#include <kvm/KVM.hpp>
#include <matrix/dvArray.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>

#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace {

namespace pf = parallel::language::future;

using Futures = std::vector<std::shared_ptr<pf::FutureBase>>;

// Work that is done before anyone asks: one 1-by-1 output.
std::shared_ptr<bench::BenchTask> finishedTask() {
    pf::DvArrayVector outputs{{matrix::to_korvex(dvCreateDoubleScalar(1.0)), false}};
    auto task = std::make_shared<bench::BenchTask>(
        pf::OutputsOrError(std::optional<pf::DvArrayVector>(std::move(outputs))));
    task->advanceTo(pf::FutureState::Finished);
    return task;
}

Futures makeFinishedFutures(std::size_t count) {
    Futures futures;
    futures.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        futures.push_back(std::make_shared<pf::FevalFuture>(nullptr, nullptr, 1,
                                                            pf::DvArrayVector{}, finishedTask()));
    }
    return futures;
}

void BM_FetchNextDrain(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto interpreter = kvm::KVM::create();
    const pf::Seconds noTimeout(std::numeric_limits<double>::max());

    std::size_t calls = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Futures futures = makeFinishedFutures(count);
        state.ResumeTiming();

        for (;;) {
            ++calls;
            const auto [fetchState, index, outputs] =
                pf::FutureBase::fetchNext(futures, 1, noTimeout);
            if (fetchState != pf::FetchNextState::Fetched) {
                if (fetchState != pf::FetchNextState::NoUnreadFutures) {
                    state.SkipWithError("fetchNext gave neither a future nor NoUnreadFutures");
                }
                break;
            }
            benchmark::DoNotOptimize(index);
            benchmark::DoNotOptimize(outputs.data());
        }

        state.PauseTiming();
        futures.clear();
        state.ResumeTiming();
    }

    const double examinedPerDrain = static_cast<double>(count) * (count + 1) / 2.0 + count;
    const double iterations = static_cast<double>(state.iterations());
    using benchmark::Counter;
    // Inverted rates: seconds per examined future and per call, which the
    // console shows with their SI prefix (for example "12.3ns").
    state.counters["per_examined"] =
        Counter(examinedPerDrain * iterations, Counter::kIsRate | Counter::kInvert);
    state.counters["per_call"] =
        Counter(static_cast<double>(calls), Counter::kIsRate | Counter::kInvert);
}

} // namespace

BENCHMARK(BM_FetchNextDrain)
    ->Arg(100)
    ->Arg(1'000)
    ->Arg(10'000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
