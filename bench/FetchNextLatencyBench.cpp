// Latency from an evaluation finishing on a pool worker to the interpreter
// thread coming back with its output. Each round submits one evaluation to a
// LocalPool of two workers; its function blocks until a go signal, stamps the
// steady clock and returns. The interpreter thread is by then asleep in
// FutureBase::fetchNext (no timeout); a starter thread gives the go signal a
// little later. The latency is the time from the stamp to the return of
// fetchNext: the function's return, the task's Finished notification, the
// wake-up of the interpreter's queue manager and the fetch of the output.
// FutureBase::fetchOutputs, which waits on the task itself, is measured the
// same way for comparison. Median and 99th percentile in microseconds.

#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <kvm/KVM.hpp>
#include <localpool/LocalPool.hpp>
#include <matrix/dvArray.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace {

namespace pf = parallel::language::future;
using SteadyClock = std::chrono::steady_clock;
using Arrays = std::vector<boost::intrusive_ptr<dvArray>>;

long long nowNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               SteadyClock::now().time_since_epoch())
        .count();
}

// What the rounds share with the evaluated function and the starter thread.
// Round r is released when `go` reaches r; the function then publishes its
// stamp in `finishedAt`.
struct Rounds {
    std::atomic<long long> requested{0};
    std::atomic<long long> go{0};
    std::atomic<long long> finishedAt{0};
};

// The evaluated function: its input is the round number.
boost::intrusive_ptr<dvArray> gatedFunction(const std::shared_ptr<Rounds>& rounds) {
    auto body = [rounds](std::size_t /*numOutputs*/, const Arrays& inputs) -> Arrays {
        const auto round = static_cast<long long>(dvGetDoubles(inputs.at(0).get())[0]);
        for (long long seen = rounds->go.load(); seen < round; seen = rounds->go.load()) {
            rounds->go.wait(seen);
        }
        rounds->finishedAt.store(nowNanoseconds());
        return {inputs.at(0)};
    };
    return {matrix::to_korvex(matrix::createFunctionHandle("gated", body)), false};
}

// Gives the go signal of each requested round after a pause long enough for
// the interpreter thread to be asleep in its wait. Round -1 ends it.
void giveGoSignals(Rounds& rounds) {
    for (long long done = 0;;) {
        rounds.requested.wait(done);
        const long long round = rounds.requested.load();
        if (round < 0) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        rounds.go.store(round);
        rounds.go.notify_all();
        done = round;
    }
}

// Runs the rounds, `awaitOutput` blocking on the future until it has the output.
template <class AwaitOutput>
void measureRounds(benchmark::State& state, AwaitOutput awaitOutput) {
    const auto numRounds = state.range(0);
    const auto interpreter = kvm::KVM::create();
    const auto rounds = std::make_shared<Rounds>();
    localpool::LocalPool pool(2);
    const auto function = gatedFunction(rounds);
    std::thread starter(giveGoSignals, std::ref(*rounds));

    std::vector<double> latencies;
    long long round = 0;
    for (auto _ : state) {
        latencies.clear();
        for (long long i = 0; i < numRounds; ++i) {
            ++round;
            std::shared_ptr<pf::FutureBase> future = pool.submit(
                function, 1, {{matrix::to_korvex(dvCreateDoubleScalar(double(round))), false}});
            rounds->requested.store(round);
            rounds->requested.notify_one();
            if (!awaitOutput(std::move(future))) {
                state.SkipWithError("the evaluation did not deliver its output");
                break;
            }
            latencies.push_back(double(nowNanoseconds() - rounds->finishedAt.load()));
        }
    }
    rounds->requested.store(-1);
    rounds->requested.notify_one();
    starter.join();
    if (!latencies.empty()) {
        bench::reportPercentiles(state, std::move(latencies));
    }
}

void BM_FetchNextLatency(benchmark::State& state) {
    measureRounds(state, [](std::shared_ptr<pf::FutureBase> future) {
        const pf::Seconds noTimeout(std::numeric_limits<double>::max());
        const auto [fetchState, index, outputs] =
            pf::FutureBase::fetchNext({std::move(future)}, 1, noTimeout);
        return fetchState == pf::FetchNextState::Fetched && outputs.size() == 1;
    });
}

void BM_FetchOutputsLatency(benchmark::State& state) {
    measureRounds(state, [](std::shared_ptr<pf::FutureBase> future) {
        return pf::FutureBase::fetchOutputs({std::move(future)}, true, 1).size() == 1;
    });
}

} // namespace

BENCHMARK(BM_FetchNextLatency)
    ->Arg(1000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FetchOutputsLatency)
    ->Arg(1000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
