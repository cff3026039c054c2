// Wake-up latency of TaskBase::wait(Finished): the time from just before the
// executor's doNotifyFinished to the return of wait on a thread that is
// already asleep in it. Next to it the same hand-off on a bare
// boost::promise<void> / boost::shared_future<void>. Each round uses a fresh
// task (or promise) and a fresh waiter thread; the median and the 99th
// percentile over the rounds are reported in microseconds.
//
// WaitInterruptLatency: Ctrl-C during FutureBase::wait. The main thread is
// the interpreter, asleep in wait (no timeout) on a running future; another
// thread calls KVM::requestInterrupt. From just before that call to the
// interrupt error reaching the waiter, in microseconds.

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FutureState.hpp>
#include <parallel/language/future/TaskBase.hpp>
#include <parallel/language/future/TimeTypes.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>
#include <boost/chrono/system_clocks.hpp>
#include <boost/thread/future.hpp>
#include <foundation/core/except/Exception.hpp>
#include <kvm/KVM.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <latch>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace pf = parallel::language::future;
using SteadyClock = std::chrono::steady_clock;

long long nowNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               SteadyClock::now().time_since_epoch())
        .count();
}

// One round: `waitFor` blocks on a fresh waiter thread; once it is surely
// asleep, the start time is published and `wake` runs here. Answers the
// latency in nanoseconds, as the waiter measured it.
template <class WaitFor, class Wake>
double measureOneWake(WaitFor waitFor, Wake wake) {
    std::latch waiterReady(1);
    std::atomic<long long> wakeStart{0};
    long long latency = 0;
    std::thread waiter([&] {
        waiterReady.count_down();
        waitFor();
        latency = nowNanoseconds() - wakeStart.load(std::memory_order_acquire);
    });
    waiterReady.wait();
    // Give the waiter time to go to sleep in the wait.
    const auto asleep = SteadyClock::now() + std::chrono::microseconds(50);
    while (SteadyClock::now() < asleep) {
    }
    wakeStart.store(nowNanoseconds(), std::memory_order_release);
    wake();
    waiter.join();
    return static_cast<double>(latency);
}

void BM_TaskWakeLatency(benchmark::State& state) {
    const auto rounds = static_cast<std::size_t>(state.range(0));
    std::vector<double> latencies;
    for (auto _ : state) {
        latencies.clear();
        for (std::size_t i = 0; i < rounds; ++i) {
            auto task = std::make_shared<bench::BenchTask>();
            task->advanceTo(pf::FutureState::Running);
            const pf::SteadyTimePoint deadline =
                pf::clock::getCurrentSteadyTime() + pf::Seconds(10.0);
            latencies.push_back(measureOneWake(
                [&] { benchmark::DoNotOptimize(task->wait(pf::FutureState::Finished, deadline)); },
                [&] { task->doNotifyFinished(); }));
        }
    }
    bench::reportPercentiles(state, std::move(latencies));
}

void BM_BarePromiseWakeLatency(benchmark::State& state) {
    const auto rounds = static_cast<std::size_t>(state.range(0));
    std::vector<double> latencies;
    for (auto _ : state) {
        latencies.clear();
        for (std::size_t i = 0; i < rounds; ++i) {
            boost::promise<void> finished;
            boost::shared_future<void> finishedFuture = finished.get_future().share();
            const auto deadline = boost::chrono::steady_clock::now() + boost::chrono::seconds(10);
            latencies.push_back(measureOneWake(
                [&] { benchmark::DoNotOptimize(finishedFuture.wait_until(deadline)); },
                [&] { finished.set_value(); }));
        }
    }
    bench::reportPercentiles(state, std::move(latencies));
}

void BM_WaitInterruptLatency(benchmark::State& state) {
    const auto rounds = static_cast<std::size_t>(state.range(0));
    const auto interpreter = kvm::KVM::create();
    auto task = std::make_shared<bench::BenchTask>();
    task->advanceTo(pf::FutureState::Running);
    const auto future =
        std::make_shared<pf::FevalFuture>(nullptr, nullptr, 1, pf::DvArrayVector{}, task, 1);
    const pf::Seconds noTimeout(std::numeric_limits<double>::max());
    std::vector<double> latencies;
    for (auto _ : state) {
        latencies.clear();
        for (std::size_t i = 0; i < rounds; ++i) {
            std::atomic<long long> requestedAt{0};
            std::jthread interrupter([&] {
                // Time for the interpreter to go to sleep in the wait.
                std::this_thread::sleep_for(std::chrono::microseconds(500));
                requestedAt.store(nowNanoseconds(), std::memory_order_release);
                interpreter->requestInterrupt();
            });
            try {
                pf::FutureBase::wait({future}, pf::FutureState::Finished, noTimeout);
                state.SkipWithError("the wait ended without the interrupt");
                return;
            } catch (const foundation::core::except::IMsgIDException&) {
                latencies.push_back(double(nowNanoseconds() - requestedAt.load()));
            }
        }
    }
    task->doNotifyFinished();
    bench::reportPercentiles(state, std::move(latencies));
}

} // namespace

BENCHMARK(BM_WaitInterruptLatency)->Arg(200)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TaskWakeLatency)->Arg(2000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BarePromiseWakeLatency)->Arg(2000)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
