// Draining N finished futures held in one object array by calling the
// language method "fetchNext" on the array until it raises NoUnreadFutures,
// as a program in the language does. The futures are FevalFutures over tasks
// driven to Finished with one 1-by-1 output before the timed region.
//
// Every call converts the whole array into futures and walks it from the
// start past the futures already read: the k-th call (from 1) walks k
// elements, N(N+1)/2 element visits per drain, the count the drain's cost is
// quoted in. Counters: total time per drain (ms_per_drain), time per element
// visited (ns_per_element_visited, total over N(N+1)/2) and per call.

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/Module.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kcos/Language.hpp>
#include <kvm/KVM.hpp>
#include <matrix/dvArray.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

namespace pf = parallel::language::future;

std::shared_ptr<pf::FutureBase> finishedFuture() {
    pf::DvArrayVector outputs{{matrix::to_korvex(dvCreateDoubleScalar(1.0)), false}};
    auto task = std::make_shared<bench::BenchTask>(
        pf::OutputsOrError(std::optional<pf::DvArrayVector>(std::move(outputs))));
    task->advanceTo(pf::FutureState::Finished);
    return std::make_shared<pf::FevalFuture>(nullptr, nullptr, 1, pf::DvArrayVector{}, task);
}

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
    const auto interpreter = kvm::KVM::create();
    KVInitialize_libqzparallellanguagefuture();

    double seconds = 0;
    std::size_t calls = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<std::shared_ptr<pf::FutureBase>> futures;
        for (std::size_t i = 0; i < count; ++i) {
            futures.push_back(finishedFuture());
        }
        matrix::unique_dvArray array = pf::FutureBase::toKorvexArray(futures, {});
        futures.clear();
        state.ResumeTiming();

        const auto start = std::chrono::steady_clock::now();
        const std::size_t fetched = drain(array.get());
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        seconds += took.count();
        if (fetched != count) {
            state.SkipWithError("the drain did not fetch every future");
        }
        calls += count + 1;

        state.PauseTiming();
        array.reset();
        state.ResumeTiming();
    }
    const auto drains = static_cast<double>(state.iterations());
    const double visits = double(count) * double(count + 1) / 2 * drains;
    state.counters["ms_per_drain"] = seconds * 1e3 / drains;
    state.counters["ns_per_element_visited"] = seconds * 1e9 / visits;
    state.counters["us_per_call"] = seconds * 1e6 / double(calls);
}

BENCHMARK(BM_FetchNextMethodDrain)
    ->Arg(1000)
    ->Arg(3000)
    ->Arg(10000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
