// A task's whole life: make it, take it through Pending, Queued, Running and
// Finished, wait for Finished, drop it. Compared with the bare Boost hand-offs
// the task is built on: a running and a finished promise, each made ready,
// and a wait on the finished future. Logging is off (the default). The ratio
// task / bare is printed after the table.

#include <parallel/language/future/FutureState.hpp>
#include <parallel/language/future/TaskBase.hpp>
#include <parallel/language/future/TimeTypes.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>
#include <boost/thread/future.hpp>

#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace {

namespace pf = parallel::language::future;

// The same two promise/future pairs a task holds, and nothing else.
struct BarePromisePair {
    boost::promise<void> running;
    boost::shared_future<void> runningFuture = running.get_future().share();
    boost::promise<void> finished;
    boost::shared_future<void> finishedFuture = finished.get_future().share();
};

void BM_TaskLife(benchmark::State& state) {
    const pf::SteadyTimePoint deadline = pf::clock::getCurrentSteadyTime() + pf::Seconds(60.0);
    for (auto _ : state) {
        auto task = std::make_shared<bench::BenchTask>();
        task->doNotifyPending();
        task->doNotifyQueued();
        task->doNotifyRunning();
        task->doNotifyFinished();
        benchmark::DoNotOptimize(task->wait(pf::FutureState::Finished, deadline));
    }
}

void BM_BarePromiseLife(benchmark::State& state) {
    for (auto _ : state) {
        auto pair = std::make_shared<BarePromisePair>();
        pair->running.set_value();
        pair->finished.set_value();
        pair->finishedFuture.wait();
        benchmark::DoNotOptimize(pair->finishedFuture.is_ready());
    }
}

// The console table, then the task's CPU time as a multiple of the bare one
// (CPU time: steadier than wall time on a shared machine).
class LifeRatioReporter : public benchmark::ConsoleReporter {
public:
    LifeRatioReporter() : ConsoleReporter(OO_None) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                cpuTimes_[run.run_name.function_name] = run.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        const auto task = cpuTimes_.find("BM_TaskLife");
        const auto bare = cpuTimes_.find("BM_BarePromiseLife");
        if (task != cpuTimes_.end() && bare != cpuTimes_.end() && bare->second > 0.0) {
            GetOutputStream() << "CPU time, task life / bare promise life = "
                              << task->second / bare->second << " (target: at most 2)\n";
        }
    }

private:
    std::map<std::string, double> cpuTimes_;
};

} // namespace

BENCHMARK(BM_TaskLife);
BENCHMARK(BM_BarePromiseLife);

int main(int argc, char** argv) {
    return bench::runWithReporter<LifeRatioReporter>(argc, argv);
}
