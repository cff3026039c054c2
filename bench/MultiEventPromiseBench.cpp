// Cost of MultiEventPromise::setOne, uncontended and with two threads hitting
// one promise, each next to a bare countdown (an atomic fetch-and-subtract in
// front of a boost::promise<void>) measured in the same run.

#include <parallel/language/future/MultiEventPromise.hpp>

#include <benchmark/benchmark.h>
#include <boost/thread/future.hpp>

#include <atomic>
#include <limits>
#include <memory>

namespace {

using parallel::language::future::MultiEventPromise;

// What setOne does, written out inline: the baseline.
class RawCountdown {
public:
    explicit RawCountdown(long long count) : countdown_(count) {}

    void setOne() {
        if (countdown_.fetch_sub(1) == 1) {
            promise_.set_value();
        }
    }

private:
    std::atomic<long long> countdown_;
    boost::promise<void> promise_;
};

constexpr long long kHugeCount = std::numeric_limits<long long>::max();

// Time per setOne: the counter is the number of events per batch, inverted
// into seconds per event.
void reportPerEvent(benchmark::State& state, long long eventsPerIteration) {
    state.counters["per_setOne"] = benchmark::Counter(
        static_cast<double>(eventsPerIteration),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// One batch: a fresh promise expecting n events, then the n events. The
// promise's construction and the final set_value are spread over the batch.
void BM_MultiEventPromise_Uncontended(benchmark::State& state) {
    const auto n = static_cast<unsigned long long>(state.range(0));
    for (auto _ : state) {
        MultiEventPromise promise(MultiEventPromise::All, n);
        for (unsigned long long i = 0; i < n; ++i) {
            promise.setOne();
        }
        benchmark::ClobberMemory();
    }
    reportPerEvent(state, state.range(0));
}

void BM_RawCountdown_Uncontended(benchmark::State& state) {
    const long long n = state.range(0);
    for (auto _ : state) {
        RawCountdown countdown(n);
        for (long long i = 0; i < n; ++i) {
            countdown.setOne();
        }
        benchmark::ClobberMemory();
    }
    reportPerEvent(state, n);
}

// Every thread counts down the same promise, which never becomes ready.
// Thread 0 builds it before the first iteration and drops it after the last;
// the benchmark's start and stop barriers order this against the others.
std::unique_ptr<MultiEventPromise> gSharedPromise;
std::unique_ptr<RawCountdown> gSharedCountdown;

void BM_MultiEventPromise_Contended(benchmark::State& state) {
    if (state.thread_index() == 0) {
        gSharedPromise = std::make_unique<MultiEventPromise>(MultiEventPromise::All, kHugeCount);
    }
    for (auto _ : state) {
        gSharedPromise->setOne();
    }
    if (state.thread_index() == 0) {
        gSharedPromise.reset();
    }
}

void BM_RawCountdown_Contended(benchmark::State& state) {
    if (state.thread_index() == 0) {
        gSharedCountdown = std::make_unique<RawCountdown>(kHugeCount);
    }
    for (auto _ : state) {
        gSharedCountdown->setOne();
    }
    if (state.thread_index() == 0) {
        gSharedCountdown.reset();
    }
}

} // namespace

BENCHMARK(BM_MultiEventPromise_Uncontended)->Arg(64)->Arg(4096);
BENCHMARK(BM_RawCountdown_Uncontended)->Arg(64)->Arg(4096);
BENCHMARK(BM_MultiEventPromise_Contended)->Threads(2);
BENCHMARK(BM_RawCountdown_Contended)->Threads(2);

BENCHMARK_MAIN();
