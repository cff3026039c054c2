// Draining N futures held in one object array by calling the language method
// "fetchNext" on the array until it raises NoUnreadFutures, as a program in
// the language does:
//
//     for k = 1:numel(F), [idx, value] = fetchNext(F); end
//
// The futures are FevalFutures over bench tasks, finished before the drain
// (argument Finishing::Before) or finished by another thread in a random
// order while the drain waits (Finishing::During).
//
// The drain should cost the same per call whatever N is: counters
// ns_per_call (time over the N + 1 calls) and ms_per_drain.

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/Module.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kcos/Language.hpp>
#include <kvm/KVM.hpp>

#include "FetchNextDrainSupport.hpp"

#include <benchmark/benchmark.h>

#include <chrono>

namespace {

namespace pf = parallel::language::future;
using namespace bench::drain;

// Calls "fetchNext" for the index and one output until NoUnreadFutures;
// the number of calls that fetched a future.
std::size_t drain(const dvArray* futures) {
    for (std::size_t fetched = 0;; ++fetched) {
        try {
            auto outputs = omInvokeMethod("fetchNext", 2, {futures}, COSGetPublicClient());
            benchmark::DoNotOptimize(outputs.data());
        } catch (const foundation::core::except::IMsgIDException& error) {
            if (error.get_error_id() != "KORVEX:parallel:future:NoUnreadFutures") {
                throw;
            }
            return fetched;
        }
    }
}

void BM_FetchNextMethodDrain(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto finishing = static_cast<Finishing>(state.range(1));
    const auto interpreter = kvm::KVM::create();
    KVInitialize_libqzparallellanguagefuture();

    double seconds = 0;
    std::size_t calls = 0;
    for (auto _ : state) {
        DrainFutures made = makeFutures(count, finishing);
        matrix::unique_dvArray array = pf::FutureBase::toKorvexArray(made.futures, {});
        made.futures.clear();
        std::optional<RandomFinisher> finisher;
        if (finishing == Finishing::During) {
            finisher.emplace(made.tasks);
        }
        const auto start = std::chrono::steady_clock::now();
        if (finisher) {
            finisher->start();
        }
        const std::size_t fetched = drain(array.get());
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

BENCHMARK(BM_FetchNextMethodDrain)
    ->ArgNames({"N", "during"})
    ->ArgsProduct({{1'000, 10'000, 100'000},
                   {int64_t(Finishing::Before), int64_t(Finishing::During)}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
