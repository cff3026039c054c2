// What the language side costs: turning N futures into an object array and
// back (the first conversion makes the objects, later ones reuse them), and
// reading properties of one future as the language does ("State", "ID",
// "OutputArguments", and "StartDateTime", which builds a datetime through
// the class-object system).

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/Module.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>
#include <kcos/Language.hpp>
#include <kvm/KVM.hpp>

#include <memory>
#include <vector>

namespace {

namespace pf = parallel::language::future;

std::vector<std::shared_ptr<pf::FutureBase>> finishedFutures(std::size_t n) {
    std::vector<std::shared_ptr<pf::FutureBase>> futures;
    for (std::size_t i = 0; i < n; ++i) {
        auto task = std::make_shared<bench::BenchTask>(pf::OutputsOrError(
            std::optional<pf::DvArrayVector>(pf::DvArrayVector{boost::intrusive_ptr<dvArray>(
                matrix::to_korvex(dvCreateDoubleScalar(1.0)), false)})));
        task->advanceTo(pf::FutureState::Finished);
        futures.push_back(
            std::make_shared<pf::FevalFuture>(nullptr, nullptr, 1, pf::DvArrayVector{}, task));
    }
    return futures;
}

struct Language {
    Language() { KVInitialize_libqzparallellanguagefuture(); }
    std::shared_ptr<kvm::KVM> interpreter = kvm::KVM::create();
};

void BM_FirstConversion(benchmark::State& state) {
    Language language;
    const auto n = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        auto futures = finishedFutures(n);
        state.ResumeTiming();
        benchmark::DoNotOptimize(pf::FutureBase::toKorvexArray(futures, {}));
    }
    state.counters["per_future"] =
        benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
}
BENCHMARK(BM_FirstConversion)->Arg(1)->Arg(64)->Arg(1024);

void BM_RoundTrip(benchmark::State& state) {
    Language language;
    const auto n = static_cast<std::size_t>(state.range(0));
    const auto futures = finishedFutures(n);
    pf::FutureBase::toKorvexArray(futures, {}); // the objects exist from here on
    for (auto _ : state) {
        const auto array = pf::FutureBase::toKorvexArray(futures, {});
        benchmark::DoNotOptimize(pf::FutureBase::fromKorvexArray(array.get()));
    }
    state.counters["per_future"] =
        benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
}
BENCHMARK(BM_RoundTrip)->Arg(1)->Arg(64)->Arg(1024);

void BM_PropertyRead(benchmark::State& state, const char* name) {
    Language language;
    const auto array = pf::FutureBase::toKorvexArray(finishedFutures(1), {});
    for (auto _ : state) {
        benchmark::DoNotOptimize(omGetProperty(array.get(), name, COSGetPublicClient()));
    }
}
BENCHMARK_CAPTURE(BM_PropertyRead, State, "State");
BENCHMARK_CAPTURE(BM_PropertyRead, ID, "ID");
BENCHMARK_CAPTURE(BM_PropertyRead, OutputArguments, "OutputArguments");
BENCHMARK_CAPTURE(BM_PropertyRead, StartDateTime, "StartDateTime");

} // namespace

BENCHMARK_MAIN();
