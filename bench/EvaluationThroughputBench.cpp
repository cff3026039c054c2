// Throughput of the local pool: a burst of trivial evaluations (each returns
// its 1-by-1 input) submitted to a LocalPool of two workers, then collected by
// one FutureBase::fetchOutputs call, which waits for them all and stacks the
// outputs into one column. The rate counter is evaluations per second of wall
// clock, submission and collection included; releasing the futures and the
// outputs afterwards is not timed.
//
//   SubmitThenFetchOutputs  LocalPool::submit of each, FutureBase::fetchOutputs.
//   BarePool                the baseline: a boost::asio::thread_pool of two
//                           threads, each job setting a boost::promise<double>
//                           to its input; the futures' values are then read
//                           into one vector in order.
//
// After the table the rate of the library over the rate of the bare pool is
// printed (same run, same burst size).

#include <parallel/language/future/FutureBase.hpp>

#include <kvm/KVM.hpp>
#include <localpool/LocalPool.hpp>
#include <matrix/dvArray.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/thread/future.hpp>

#include <map>
#include <memory>
#include <ostream>
#include <string>
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

constexpr std::size_t kBareWorkers = 2;

void BM_BarePool(benchmark::State& state) {
    const auto numEvaluations = static_cast<std::size_t>(state.range(0));
    boost::asio::thread_pool pool(kBareWorkers);
    const double input = 1.0;
    std::vector<boost::future<double>> futures;
    futures.reserve(numEvaluations);
    std::vector<double> outputs;
    outputs.reserve(numEvaluations);
    for (auto _ : state) {
        for (std::size_t i = 0; i < numEvaluations; ++i) {
            auto promise = std::make_shared<boost::promise<double>>();
            futures.push_back(promise->get_future());
            boost::asio::post(pool, [promise, input] { promise->set_value(input); });
        }
        for (auto& future : futures) {
            outputs.push_back(future.get());
        }
        benchmark::DoNotOptimize(outputs.data());
        state.PauseTiming();
        outputs.clear();
        futures.clear();
        state.ResumeTiming();
    }
    pool.join();
    state.counters["evaluations_per_second"] = benchmark::Counter(
        static_cast<double>(state.iterations() * numEvaluations), benchmark::Counter::kIsRate);
}

// The table, then the library's rate over the bare pool's, per burst size.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_None) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const auto rate = run.counters.find("evaluations_per_second");
            if (run.run_type == Run::RT_Iteration && !run.error_occurred &&
                rate != run.counters.end()) {
                rates_[run.run_name.args][run.run_name.function_name] = double(rate->second);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        for (const auto& [burst, byBenchmark] : rates_) {
            const auto library = byBenchmark.find("BM_SubmitThenFetchOutputs");
            const auto bare = byBenchmark.find("BM_BarePool");
            if (library != byBenchmark.end() && bare != byBenchmark.end()) {
                GetOutputStream() << "burst " << burst
                                  << ": library / bare pool = " << library->second / bare->second
                                  << "\n";
            }
        }
    }

private:
    std::map<std::string, std::map<std::string, double>> rates_;
};

} // namespace

BENCHMARK(BM_SubmitThenFetchOutputs)->Arg(10'000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BarePool)->Arg(10'000)->UseRealTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    return bench::runWithReporter<RatioReporter>(argc, argv);
}
