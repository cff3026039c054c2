// What the timeline recorder costs per future.
//
//   BM_FutureLife/recording:0|1   one FevalFuture over a task of a do-nothing
//                                 executor, taken through Pending, Queued,
//                                 Running and Finished, waited on and dropped,
//                                 on one thread: the recorder's own cost.
//   BM_PoolEvaluations/recording:0|1
//                                 a burst of 1,000 trivial evaluations on a
//                                 LocalPool of two workers, collected by
//                                 fetchOutputs: the cost as a program sees it,
//                                 with the workers recording at once.
//   BM_FutureLifeThreads/recording:0|1/threads:1|2|4
//                                 BM_FutureLife on 1, 2 and 4 threads at
//                                 once, 250,000 futures each (1,000,000 on
//                                 four), into one recorder made before the
//                                 threads start: whether recording threads
//                                 wait for each other. Time per future is
//                                 wall clock over all threads' futures.
//
// With recording off the recorder's hooks are one relaxed load each; the
// difference from a build without them is within noise (compare TaskLifeBench
// across the change). While recording, entries pile up: the recorder is made
// afresh every kEntriesPerRecorder futures, untimed; the new one's logs reuse
// the memory the last one's left (the recorder keeps up to 32 MiB of it),
// whereas BM_FutureLifeThreads records into one recorder throughout and so
// also pays for touching fresh memory. After the table the overhead per
// future (recording on minus off) is printed.

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/TimelineRecorder.hpp>

#include "BenchSupport.hpp"

#include <kvm/KVM.hpp>
#include <localpool/LocalPool.hpp>

#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace {

namespace pf = parallel::language::future;

constexpr std::size_t kEntriesPerRecorder = 100'000;
constexpr std::size_t kBurst = 1'000;

// A recorder while `on`, replaced before it holds too many entries.
class RecorderWhile {
public:
    explicit RecorderWhile(bool on) : on_(on) { restart(); }

    // Counts `futures` more; restarts the recorder (untimed) when full.
    void add(benchmark::State& state, std::size_t futures) {
        recorded_ += futures;
        if (on_ && recorded_ >= kEntriesPerRecorder) {
            state.PauseTiming();
            restart();
            state.ResumeTiming();
        }
    }

private:
    void restart() {
        recorder_.reset();
        recorded_ = 0;
        if (on_) {
            recorder_.emplace();
        }
    }

    bool on_;
    std::size_t recorded_ = 0;
    std::optional<pf::TimelineRecorder> recorder_;
};

// One future over a task taken from Pending to Finished, waited on, dropped.
void liveOneFuture(const pf::SteadyTimePoint& deadline) {
    auto task = std::make_shared<bench::BenchTask>();
    auto future = std::make_shared<pf::FevalFuture>(nullptr, nullptr, 1, pf::DvArrayVector{}, task);
    task->advanceTo(pf::FutureState::Finished);
    benchmark::DoNotOptimize(task->wait(pf::FutureState::Finished, deadline));
    benchmark::DoNotOptimize(future.get());
}

void BM_FutureLife(benchmark::State& state) {
    RecorderWhile recording(state.range(0) != 0);
    const pf::SteadyTimePoint deadline = pf::clock::getCurrentSteadyTime() + pf::Seconds(60.0);
    for (auto _ : state) {
        liveOneFuture(deadline);
        recording.add(state, 1);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FutureLife)->ArgName("recording")->Arg(0)->Arg(1);

void BM_PoolEvaluations(benchmark::State& state) {
    const auto interpreter = kvm::KVM::create();
    localpool::LocalPool pool(2);
    const boost::intrusive_ptr<dvArray> identity(
        matrix::to_korvex(matrix::createFunctionHandle(
            "identity", [](std::size_t, const pf::DvArrayVector& in) { return in; })),
        false);
    const boost::intrusive_ptr<dvArray> input(matrix::to_korvex(dvCreateDoubleScalar(1.0)), false);
    RecorderWhile recording(state.range(0) != 0);
    std::vector<std::shared_ptr<pf::FutureBase>> futures;
    futures.reserve(kBurst);
    for (auto _ : state) {
        for (std::size_t i = 0; i < kBurst; ++i) {
            futures.push_back(pool.submit(identity, 1, {input}));
        }
        benchmark::DoNotOptimize(pf::FutureBase::fetchOutputs(futures, true, 1));
        state.PauseTiming();
        futures.clear();
        state.ResumeTiming();
        recording.add(state, kBurst);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBurst));
}
BENCHMARK(BM_PoolEvaluations)->ArgName("recording")->Arg(0)->Arg(1)->UseRealTime();

// One recorder for all threads of a BM_FutureLifeThreads run, made before
// they start and dropped after they end.
std::optional<pf::TimelineRecorder> gSharedRecorder;
constexpr std::int64_t kFuturesPerThread = 250'000;

void BM_FutureLifeThreads(benchmark::State& state) {
    const pf::SteadyTimePoint deadline = pf::clock::getCurrentSteadyTime() + pf::Seconds(60.0);
    for (auto _ : state) {
        liveOneFuture(deadline);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FutureLifeThreads)
    ->ArgName("recording")
    ->Arg(0)
    ->Arg(1)
    ->Setup([](const benchmark::State& state) {
        if (state.range(0) != 0) {
            gSharedRecorder.emplace();
        }
    })
    ->Teardown([](const benchmark::State&) { gSharedRecorder.reset(); })
    ->Iterations(kFuturesPerThread)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();

// The table, then per benchmark (and thread count) the time per future with
// recording on minus off (real time per item, all threads' items).
class OverheadReporter : public benchmark::ConsoleReporter {
public:
    OverheadReporter() : ConsoleReporter(OO_None) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                const double items = run.counters.count("items_per_second") != 0
                                         ? double(run.counters.at("items_per_second"))
                                         : 0.0;
                if (items > 0.0) {
                    const std::string threads =
                        run.threads > 1 ? " on " + std::to_string(run.threads) + " threads" : "";
                    nsPerFuture_[run.run_name.function_name + threads][run.run_name.args] =
                        1e9 / items;
                }
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        for (const auto& [name, byArgument] : nsPerFuture_) {
            const auto off = byArgument.find("recording:0");
            const auto on = byArgument.find("recording:1");
            if (off != byArgument.end() && on != byArgument.end()) {
                GetOutputStream() << name << ": " << off->second << " ns per future off, "
                                  << on->second << " ns on, overhead " << on->second - off->second
                                  << " ns per future\n";
            }
        }
    }

private:
    std::map<std::string, std::map<std::string, double>> nsPerFuture_;
};

} // namespace

int main(int argc, char** argv) {
    return bench::runWithReporter<OverheadReporter>(argc, argv);
}
