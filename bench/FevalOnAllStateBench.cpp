// What it costs to read the state of an evaluation on every worker: the
// future folds its tasks' states on every call, so the cost should grow
// linearly with the number of tasks (target: under 30 ns per task). Measured
// over 1, 16 and 256 tasks, all Running or a mix of Queued, Running and
// Finished; and a wait for Finished, with no time left, on 16 finished tasks
// (the quick answer of an already finished future). Logging is off (the
// default). The counter per_task is the time per call over the number of
// tasks.

#include <parallel/language/future/FevalOnAllFuture.hpp>
#include <parallel/language/future/FutureState.hpp>
#include <parallel/language/future/TaskBase.hpp>
#include <parallel/language/future/TimeTypes.hpp>
#include <parallel/language/future/VectorMultiTask.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>
#include <kvm/KVM.hpp>

#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace {

namespace pf = parallel::language::future;

enum class Mix { AllRunning, QueuedRunningFinished, AllFinished };

pf::FutureState stateOf(Mix mix, std::size_t i) {
    switch (mix) {
    case Mix::AllRunning:
        return pf::FutureState::Running;
    case Mix::AllFinished:
        return pf::FutureState::Finished;
    case Mix::QueuedRunningFinished:
        break;
    }
    constexpr pf::FutureState cycle[] = {pf::FutureState::Queued, pf::FutureState::Running,
                                         pf::FutureState::Finished};
    return cycle[i % 3];
}

std::shared_ptr<pf::FutureBase> onAllFuture(std::size_t numTasks, Mix mix) {
    std::vector<std::shared_ptr<pf::TaskBase>> tasks;
    tasks.reserve(numTasks);
    for (std::size_t i = 0; i < numTasks; ++i) {
        auto task = std::make_shared<bench::BenchTask>();
        task->advanceTo(stateOf(mix, i));
        tasks.push_back(std::move(task));
    }
    return std::make_shared<pf::FevalOnAllFuture>(
        nullptr, nullptr, 1, pf::DvArrayVector{},
        std::make_shared<pf::VectorMultiTask>(std::move(tasks)));
}

// Time per call divided by `numTasks` (in seconds, shown with a prefix).
void countPerTask(benchmark::State& state, std::size_t numTasks) {
    state.counters["per_task"] = benchmark::Counter(static_cast<double>(numTasks),
                                                    benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}

void BM_OnAllState(benchmark::State& state, Mix mix) {
    const auto numTasks = static_cast<std::size_t>(state.range(0));
    const auto future = onAllFuture(numTasks, mix);
    for (auto _ : state) {
        benchmark::DoNotOptimize(future->getState());
    }
    countPerTask(state, numTasks);
}

void BM_OnAllWaitFinished(benchmark::State& state) {
    const auto interpreter = kvm::KVM::create(); // waits run on an interpreter thread
    const auto numTasks = static_cast<std::size_t>(state.range(0));
    const auto future = onAllFuture(numTasks, Mix::AllFinished);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            pf::FutureBase::wait({future}, pf::FutureState::Finished, pf::Seconds(0)));
    }
    countPerTask(state, numTasks);
}

// The console table, then the per-task cost of the state read at the
// largest size of each mix against the target.
class PerTaskReporter : public benchmark::ConsoleReporter {
public:
    PerTaskReporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const auto counter = run.counters.find("per_task");
            if (run.run_type == Run::RT_Iteration && !run.error_occurred &&
                counter != run.counters.end() &&
                run.run_name.function_name.starts_with("BM_OnAllState")) {
                perTask_[run.run_name.function_name] = counter->second.value * 1e9;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        for (const auto& [name, nanoseconds] : perTask_) {
            GetOutputStream() << name << " at its largest size: " << nanoseconds
                              << " ns per task (target: under 30)\n";
        }
    }

private:
    std::map<std::string, double> perTask_; // ns; the last size run wins: the largest
};

} // namespace

BENCHMARK_CAPTURE(BM_OnAllState, AllRunning, Mix::AllRunning)->Arg(1)->Arg(16)->Arg(256);
BENCHMARK_CAPTURE(BM_OnAllState, Mixed, Mix::QueuedRunningFinished)->Arg(1)->Arg(16)->Arg(256);
BENCHMARK(BM_OnAllWaitFinished)->Arg(16);

int main(int argc, char** argv) {
    return bench::runWithReporter<PerTaskReporter>(argc, argv);
}
