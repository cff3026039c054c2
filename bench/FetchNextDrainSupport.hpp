#pragma once

// Pieces shared by the fetchNext drain benchmarks: N futures over bench
// tasks with one 1-by-1 output each, either finished before the drain starts
// or finished one by one, in a seeded random order, by another thread while
// the drain runs (so that the drain waits for most of them).

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <matrix/dvArray.hpp>

#include "BenchSupport.hpp"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <latch>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <vector>

namespace bench::drain {

using Futures = std::vector<std::shared_ptr<pf::FutureBase>>;
using Tasks = std::vector<std::shared_ptr<BenchTask>>;

// The benchmark argument that picks when the futures finish.
enum class Finishing : std::int64_t { Before = 0, During = 1 };

struct DrainFutures {
    Tasks tasks;
    Futures futures;
};

// `count` futures whose tasks are finished already, or running.
inline DrainFutures makeFutures(std::size_t count, Finishing finishing) {
    DrainFutures made;
    made.tasks.reserve(count);
    made.futures.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        pf::DvArrayVector outputs{{matrix::to_korvex(dvCreateDoubleScalar(double(i))), false}};
        auto task = std::make_shared<BenchTask>(
            pf::OutputsOrError(std::optional<pf::DvArrayVector>(std::move(outputs))));
        task->advanceTo(finishing == Finishing::Before ? pf::FutureState::Finished
                                                       : pf::FutureState::Running);
        made.futures.push_back(
            std::make_shared<pf::FevalFuture>(nullptr, nullptr, 1, pf::DvArrayVector{}, task));
        made.tasks.push_back(std::move(task));
    }
    return made;
}

// The calling thread's processor time: what it spent working, not waiting for
// a processor or for another thread.
inline std::chrono::duration<double> threadCpuTime() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::duration<double>(double(now.tv_sec) + double(now.tv_nsec) * 1e-9);
}

// The seed of the order in which RandomFinisher finishes the tasks.
constexpr std::uint32_t kFinishingSeed = 20240601;

// Finishes every task, in a random order fixed by the seed, on a thread of
// its own once start() is called. Joins on destruction.
class RandomFinisher {
public:
    explicit RandomFinisher(Tasks tasks, std::uint32_t seed = kFinishingSeed)
        : tasks_(std::move(tasks)) {
        std::shuffle(tasks_.begin(), tasks_.end(), std::mt19937(seed));
        thread_ = std::jthread([this] {
            go_.wait();
            for (const auto& task : tasks_) {
                task->doNotifyFinished();
            }
            finishedAt_ = std::chrono::steady_clock::now();
            done_.count_down();
        });
    }
    RandomFinisher(const RandomFinisher&) = delete;
    RandomFinisher& operator=(const RandomFinisher&) = delete;

    void start() { go_.count_down(); }
    // When the last task was finished; waits for it. After start().
    std::chrono::steady_clock::time_point finishedAt() {
        done_.wait();
        return finishedAt_;
    }
    // Lets the thread go if start() was never called.
    ~RandomFinisher() {
        if (go_.try_wait()) {
            return;
        }
        go_.count_down();
    }

private:
    Tasks tasks_;
    std::latch go_{1};
    std::latch done_{1};
    std::chrono::steady_clock::time_point finishedAt_;
    std::jthread thread_;
};

// Times one drain per iteration, with the arguments of drainArguments. For
// each, `prepare(made)` (untimed) gets the futures and gives the drain: a
// callable that answers how many futures it fetched, or none on a wrong
// answer. Counters: ms_per_drain, ns_per_call over the N + 1 calls,
// cpu_ns_per_call (the drain thread's processor time, over the same) and, for
// Finishing::During, finisher_ns: the finishing thread's time over the same.
template <class Prepare>
void timeDrains(benchmark::State& state, Prepare prepare) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto finishing = static_cast<Finishing>(state.range(1));
    double seconds = 0;
    double finishingSeconds = 0;
    double cpuSeconds = 0;
    std::size_t calls = 0;
    for (auto _ : state) {
        DrainFutures made = makeFutures(count, finishing);
        auto drain = prepare(made);
        std::optional<RandomFinisher> finisher;
        if (finishing == Finishing::During) {
            finisher.emplace(made.tasks);
        }
        const auto start = std::chrono::steady_clock::now();
        const auto cpuStart = threadCpuTime();
        if (finisher) {
            finisher->start();
        }
        const std::optional<std::size_t> fetched = drain();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        cpuSeconds += (threadCpuTime() - cpuStart).count();
        state.SetIterationTime(took.count());
        seconds += took.count();
        if (finisher) {
            finishingSeconds +=
                std::chrono::duration<double>(finisher->finishedAt() - start).count();
        }
        calls += count + 1;
        if (fetched != count) {
            state.SkipWithError("the drain did not fetch every future");
            break;
        }
    }
    const auto drains = static_cast<double>(state.iterations());
    state.counters["ms_per_drain"] = seconds * 1e3 / drains;
    state.counters["ns_per_call"] = seconds * 1e9 / double(calls);
    state.counters["cpu_ns_per_call"] = cpuSeconds * 1e9 / double(calls);
    if (finishing == Finishing::During) {
        // How long the other thread took to finish them all, per future: the
        // drain can't end before.
        state.counters["finisher_ns"] = finishingSeconds * 1e9 / double(calls);
    }
}

// N = 1,000, 10,000 and 100,000, finished before the drain or during it.
inline void drainArguments(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"N", "during"})
        ->ArgsProduct({{1'000, 10'000, 100'000},
                       {std::int64_t(Finishing::Before), std::int64_t(Finishing::During)}})
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

} // namespace bench::drain
