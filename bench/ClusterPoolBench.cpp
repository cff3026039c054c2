// The cluster pool against the local pool, side by side, on this machine:
// run under mpirun with three processes (the client and two workers; `make
// bench` starts ClusterPoolBench.sh, which does that).
//
//   RoundTrip/<pool>        submit one trivial evaluation (it returns its
//                           input) and fetchOutputs it on the interpreter
//                           thread; wall-clock time per round trip.
//   Throughput/<pool>/2     submit 10,000 trivial evaluations, then
//                           fetchOutputs them all; items_per_second, and
//                           the CPU time per evaluation of the client's
//                           process and of the workers' processes.
//   MonteCarlo/<pool>/<n>   estimate pi from 64 evaluations of 1,000,000
//                           samples each on n workers; wall-clock time.
//   Sporadic/<pool>         one round trip every 10 ms (the workers idle
//                           in between); time per round trip, its median
//                           and 99th percentile.
//   LargeArray/<pool>       a 64 MiB double array there and back.
//   StopLatency/<how>       from cancel on the client to the running
//                           function seeing stopRequested() on its worker
//                           (one machine: both read one monotonic clock);
//                           the function polls Busy, or Yielding between
//                           polls.
//   QueuedLargeInputs       rank 0's memory growth from 20 submissions of one
//                           64 MiB array queued behind busy workers.
//   IdleWorkerCpu/Cluster   CPU time of a worker process over 2 s with
//                           nothing to do, as a share of one core.
//
// <pool> is Local (LocalPool with 2 worker threads, or n) or Cluster
// (MpiPool over 2 worker processes, or n).

#include "BenchSupport.hpp"

#include <mpipool/Cluster.hpp>
#include <mpipool/FunctionRegistry.hpp>
#include <mpipool/MpiPool.hpp>

#include <localpool/LocalPool.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <kvm/KVM.hpp>
#include <matrix/dvArray.hpp>

#include <benchmark/benchmark.h>

#include <atomic>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <thread>
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

// The stop request the last "untilStopped" saw, in steady-clock nanoseconds.
std::atomic<std::int64_t> gStopSeen{0};

std::int64_t steadyNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double processCpuSeconds() {
    timespec cpu{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
    return static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) * 1e-9;
}

void registerFunctions() {
    // Polls for its stop request as fast as it can: with a yield between
    // polls (input 1), or busy (the worker's other threads then wait for
    // the scheduler to take the core from it).
    mpipool::registerFunction("untilStopped", [](std::size_t, const pf::DvArrayVector& in) {
        const bool yield = dvGetDoubles(in.at(0).get())[0] != 0;
        while (!mpipool::stopRequested()) {
            if (yield) {
                std::this_thread::yield();
            }
        }
        gStopSeen = steadyNanos();
        return pf::DvArrayVector{};
    });
    mpipool::registerFunction("stopSeen", [](std::size_t, const pf::DvArrayVector&) {
        return pf::DvArrayVector{scalar(static_cast<double>(gStopSeen.load()))};
    });
    mpipool::registerFunction("cpuSeconds", [](std::size_t, const pf::DvArrayVector&) {
        return pf::DvArrayVector{scalar(processCpuSeconds())};
    });
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

// CPU seconds used so far by the pool's worker processes (none for the
// local pool).
double workersCpuSeconds(executor::Executor& pool, bool cluster) {
    double total = 0;
    if (cluster) {
        const pf::DvArrayVector perWorker = pf::FutureBase::fetchOutputs(
            {pool.submitOnAll(mpipool::functionHandle("cpuSeconds"), 1, {})}, true, 1);
        for (const double seconds : dvGetDoubles(perWorker.front().get())) {
            total += seconds;
        }
    }
    return total;
}

void BM_Throughput(benchmark::State& state, bool cluster) {
    const auto pool = openPool(cluster, static_cast<std::size_t>(state.range(0)));
    const Array function = mpipool::functionHandle("identity");
    const Array input = scalar(1.0);
    const double workersBefore = workersCpuSeconds(*pool, cluster);
    const double clientBefore = processCpuSeconds();
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
    // The CPU per evaluation of this process and of the workers' processes:
    // on a machine whose cores they share, the throughput follows the sum.
    const double items = static_cast<double>(state.iterations() * kThroughputBatch);
    state.counters["client_cpu_us"] = (processCpuSeconds() - clientBefore) * 1e6 / items;
    state.counters["workers_cpu_us"] =
        (workersCpuSeconds(*pool, cluster) - workersBefore) * 1e6 / items;
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

void BM_Sporadic(benchmark::State& state, bool cluster) {
    const auto pool = openPool(cluster, 2);
    const Array function = mpipool::functionHandle("identity");
    const Array input = scalar(1.0);
    std::vector<double> latencies;
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const auto start = std::chrono::steady_clock::now();
        std::shared_ptr<pf::FutureBase> future = pool->submit(function, 1, {input});
        pf::DvArrayVector outputs = pf::FutureBase::fetchOutputs({std::move(future)}, true, 1);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        latencies.push_back(took.count() * 1e9);
        benchmark::DoNotOptimize(outputs.front().get());
    }
    // The mean (the reported time) takes in the rare round trip that a busy
    // machine delays by milliseconds; the median does not.
    bench::reportPercentiles(state, std::move(latencies));
}

void BM_LargeArray(benchmark::State& state, bool cluster) {
    const auto pool = openPool(cluster, 2);
    const Array function = mpipool::functionHandle("identity");
    constexpr std::size_t kDoubles = (std::size_t{64} << 20) / sizeof(double);
    const Array input(matrix::to_korvex(matrix::detail::do_create_numeric({kDoubles, 1},
                                                                          matrix::ClassID::Double)),
                      false);
    for (auto _ : state) {
        std::shared_ptr<pf::FutureBase> future = pool->submit(function, 1, {input});
        pf::DvArrayVector outputs = pf::FutureBase::fetchOutputs({std::move(future)}, true, 1);
        benchmark::DoNotOptimize(outputs.front().get());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(2 * kDoubles * 8));
}

// Rank 0's memory for 20 submissions of one 64 MiB array queued behind
// busy workers: nothing is encoded until it is sent.
void BM_QueuedLargeInputs(benchmark::State& state) {
    mpipool::MpiPool pool(*gCluster, 2);
    constexpr std::size_t kDoubles = (std::size_t{64} << 20) / sizeof(double);
    const Array input(matrix::to_korvex(matrix::detail::do_create_numeric({kDoubles, 1},
                                                                          matrix::ClassID::Double)),
                      false);
    double extra = 0;
    for (auto _ : state) {
        std::vector<std::shared_ptr<pf::FevalFuture>> blockers;
        for (int i = 0; i < 2; ++i) {
            blockers.push_back(
                pool.submit(mpipool::functionHandle("untilStopped"), 0, {scalar(1)}));
            blockers.back()->getTask()->wait(pf::FutureState::Running,
                                             pf::clock::getCurrentSteadyTime() + pf::Seconds(60));
        }
        const double before = bench::residentBytes();
        std::vector<std::shared_ptr<pf::FutureBase>> queued;
        for (int i = 0; i < 20; ++i) {
            queued.push_back(pool.submit(mpipool::functionHandle("identity"), 1, {input}));
        }
        extra = bench::residentBytes() - before;
        for (const auto& blocker : blockers) {
            blocker->cancel();
        }
        benchmark::DoNotOptimize(pf::FutureBase::fetchOutputs(std::move(queued), true, 1));
    }
    state.counters["queued_extra_MiB"] = extra / (1 << 20);
}

void BM_StopLatency(benchmark::State& state, bool yielding) {
    mpipool::MpiPool pool(*gCluster, 1);
    for (auto _ : state) {
        const auto running =
            pool.submit(mpipool::functionHandle("untilStopped"), 0, {scalar(yielding ? 1 : 0)});
        running->getTask()->wait(pf::FutureState::Running,
                                 pf::clock::getCurrentSteadyTime() + pf::Seconds(60));
        const std::int64_t cancelled = steadyNanos();
        running->cancel();
        const auto seen = pool.submit(mpipool::functionHandle("stopSeen"), 1, {});
        const pf::DvArrayVector outputs = pf::FutureBase::fetchOutputs({seen}, true, 1);
        state.SetIterationTime(
            (dvGetDoubles(outputs.front().get())[0] - static_cast<double>(cancelled)) * 1e-9);
    }
}

void BM_IdleWorkerCpu(benchmark::State& state) {
    mpipool::MpiPool pool(*gCluster, 1);
    const Array cpuSeconds = mpipool::functionHandle("cpuSeconds");
    auto readCpu = [&] {
        const pf::DvArrayVector outputs =
            pf::FutureBase::fetchOutputs({pool.submit(cpuSeconds, 1, {})}, true, 1);
        return dvGetDoubles(outputs.front().get())[0];
    };
    constexpr double kIdleSeconds = 2.0;
    double share = 0;
    for (auto _ : state) {
        const double before = readCpu();
        std::this_thread::sleep_for(std::chrono::duration<double>(kIdleSeconds));
        share = (readCpu() - before) / kIdleSeconds;
    }
    state.counters["core_share_percent"] = 100 * share;
}

} // namespace

BENCHMARK_CAPTURE(BM_Sporadic, Local, false)
    ->UseManualTime()
    ->Iterations(100)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Sporadic, Cluster, true)
    ->UseManualTime()
    ->Iterations(100)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_LargeArray, Local, false)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_LargeArray, Cluster, true)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_StopLatency, Busy, false)
    ->UseManualTime()
    ->Iterations(50)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_StopLatency, Yielding, true)
    ->UseManualTime()
    ->Iterations(50)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_QueuedLargeInputs)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IdleWorkerCpu)->Iterations(1)->Unit(benchmark::kSecond);
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
