// The cluster pool against the local pool, side by side, on this machine:
// run under mpirun with three processes (the client and two workers; `make
// bench` starts ClusterPoolBench.sh, which does that).
//
//   RoundTrip/<pool>        submit one trivial evaluation (it returns its
//                           input) and fetchOutputs it on the interpreter
//                           thread; wall-clock time per round trip.
//   Throughput/<pool>/2     submit 10,000 trivial evaluations, then
//                           fetchOutputs them all; items_per_second.
//   MonteCarlo/<pool>/<n>   estimate pi from 64 evaluations of 1,000,000
//                           samples each on n workers; wall-clock time.
//
// <pool> is Local (LocalPool with 2 worker threads, or n) or Cluster
// (MpiPool over 2 worker processes, or n).

#include <mpipool/Cluster.hpp>
#include <mpipool/FunctionRegistry.hpp>
#include <mpipool/MpiPool.hpp>

#include <localpool/LocalPool.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <kvm/KVM.hpp>
#include <matrix/dvArray.hpp>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace {

namespace pf = parallel::language::future;
using Array = boost::intrusive_ptr<dvArray>;

constexpr int kThroughputBatch = 10000;
constexpr int kMonteCarloTasks = 64;
constexpr double kSamplesPerTask = 1e6;

mpipool::Cluster* gCluster = nullptr;

Array scalar(double value) {
    return {matrix::to_korvex(dvCreateDoubleScalar(value)), false};
}

// Samples in the quarter circle out of `samples` points drawn with a
// xorshift generator seeded by `seed`.
double quarterCircleHits(double samples, double seed) {
    std::uint64_t state = 0x9E3779B97F4A7C15ull ^ static_cast<std::uint64_t>(seed + 1);
    const auto next = [&state] {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return static_cast<double>(state >> 11) * 0x1.0p-53;
    };
    double hits = 0;
    for (double i = 0; i < samples; ++i) {
        const double x = next();
        const double y = next();
        hits += x * x + y * y <= 1.0 ? 1 : 0;
    }
    return hits;
}

void registerFunctions() {
    mpipool::registerFunction("identity",
                              [](std::size_t, const pf::DvArrayVector& in) { return in; });
    mpipool::registerFunction("monteCarlo", [](std::size_t, const pf::DvArrayVector& in) {
        return pf::DvArrayVector{scalar(
            quarterCircleHits(dvGetDoubles(in.at(0).get())[0], dvGetDoubles(in.at(1).get())[0]))};
    });
}

// The pool a benchmark runs on: local threads or cluster processes.
std::unique_ptr<executor::Executor> openPool(bool cluster, std::size_t numWorkers) {
    if (cluster) {
        return std::make_unique<mpipool::MpiPool>(*gCluster, numWorkers);
    }
    return std::make_unique<localpool::LocalPool>(numWorkers);
}

void BM_RoundTrip(benchmark::State& state, bool cluster) {
    const auto pool = openPool(cluster, 2);
    const Array function = mpipool::functionHandle("identity");
    const Array input = scalar(1.0);
    for (auto _ : state) {
        std::shared_ptr<pf::FutureBase> future = pool->submit(function, 1, {input});
        pf::DvArrayVector outputs = pf::FutureBase::fetchOutputs({std::move(future)}, true, 1);
        benchmark::DoNotOptimize(outputs.front().get());
    }
}

void BM_Throughput(benchmark::State& state, bool cluster) {
    const auto pool = openPool(cluster, static_cast<std::size_t>(state.range(0)));
    const Array function = mpipool::functionHandle("identity");
    const Array input = scalar(1.0);
    for (auto _ : state) {
        std::vector<std::shared_ptr<pf::FutureBase>> futures;
        futures.reserve(kThroughputBatch);
        for (int i = 0; i < kThroughputBatch; ++i) {
            futures.push_back(pool->submit(function, 1, {input}));
        }
        pf::DvArrayVector outputs = pf::FutureBase::fetchOutputs(std::move(futures), true, 1);
        benchmark::DoNotOptimize(outputs.front().get());
    }
    state.SetItemsProcessed(state.iterations() * kThroughputBatch);
}

void BM_MonteCarlo(benchmark::State& state, bool cluster) {
    const auto pool = openPool(cluster, static_cast<std::size_t>(state.range(0)));
    const Array function = mpipool::functionHandle("monteCarlo");
    const Array samples = scalar(kSamplesPerTask);
    double estimate = 0;
    for (auto _ : state) {
        std::vector<std::shared_ptr<pf::FutureBase>> futures;
        for (int i = 0; i < kMonteCarloTasks; ++i) {
            futures.push_back(pool->submit(function, 1, {samples, scalar(i)}));
        }
        const pf::DvArrayVector hits = pf::FutureBase::fetchOutputs(std::move(futures), true, 1);
        double total = 0;
        for (const double h : dvGetDoubles(hits.front().get())) {
            total += h;
        }
        estimate = 4 * total / (kMonteCarloTasks * kSamplesPerTask);
    }
    state.counters["pi"] = estimate;
}

} // namespace

BENCHMARK_CAPTURE(BM_RoundTrip, Local, false)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_RoundTrip, Cluster, true)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Throughput, Local, false)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Throughput, Cluster, true)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_MonteCarlo, Local, false)
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_MonteCarlo, Cluster, true)
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    registerFunctions();
    mpipool::Cluster cluster(argc, argv);
    if (!cluster.isClient()) {
        return cluster.serve();
    }
    gCluster = &cluster;
    const auto interpreter = kvm::KVM::create();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
