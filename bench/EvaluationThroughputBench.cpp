// Throughput of the local pool: a burst of trivial evaluations (each returns
// its 1-by-1 input) submitted to a LocalPool of two workers, then collected by
// one FutureBase::fetchOutputs call, which waits for them all and stacks the
// outputs into one column. The rate counter is evaluations per second of wall
// clock, submission and collection included; releasing the futures and the
// outputs afterwards is not timed.

#include <parallel/language/future/FutureBase.hpp>

#include <kvm/KVM.hpp>
#include <localpool/LocalPool.hpp>
#include <matrix/dvArray.hpp>

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

namespace pf = parallel::language::future;

using Arrays = std::vector<boost::intrusive_ptr<dvArray>>;

boost::intrusive_ptr<dvArray> scalar(double value) {
    return {matrix::to_korvex(dvCreateDoubleScalar(value)), false};
}

boost::intrusive_ptr<dvArray> identityFunction() {
    auto body = [](std::size_t /*numOutputs*/, const Arrays& inputs) -> Arrays {
        return {inputs.at(0)};
    };
    return {matrix::to_korvex(matrix::createFunctionHandle("identity", body)), false};
}

void BM_SubmitThenFetchOutputs(benchmark::State& state) {
    const auto numEvaluations = static_cast<std::size_t>(state.range(0));
    const auto interpreter = kvm::KVM::create();
    localpool::LocalPool pool(2);
    const auto function = identityFunction();
    const auto input = scalar(1.0);

    std::vector<std::shared_ptr<pf::FutureBase>> futures;
    futures.reserve(numEvaluations);
    for (auto _ : state) {
        for (std::size_t i = 0; i < numEvaluations; ++i) {
            futures.push_back(pool.submit(function, 1, {input}));
        }
        pf::DvArrayVector outputs = pf::FutureBase::fetchOutputs(futures, true, 1);
        if (dvGetNumberOfElements(outputs.at(0).get()) != numEvaluations) {
            state.SkipWithError("fetchOutputs returned the wrong number of values");
            break;
        }
        benchmark::DoNotOptimize(outputs.front().get());
        state.PauseTiming();
        outputs.clear();
        futures.clear();
        state.ResumeTiming();
    }
    state.counters["evaluations_per_second"] = benchmark::Counter(
        static_cast<double>(state.iterations() * numEvaluations), benchmark::Counter::kIsRate);
}

} // namespace

BENCHMARK(BM_SubmitThenFetchOutputs)->Arg(10'000)->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
