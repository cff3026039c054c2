// Continuations (AfterAllFuture, AfterEachFuture) side by side with their
// baselines. The main thread is the interpreter, module initialised; pools
// have two workers. A "gated" pool function waits for its round's go signal
// (given by a starter thread after a pause), stamps the steady clock, returns.
//
//   ContinuationHop     1000 rounds: a gated evaluation and an AfterAllFuture
//                       on it whose function stamps the clock as it starts;
//                       the interpreter sleeps in FutureBase::fetchNext on the
//                       continuation (no timeout) when the go comes 200 us
//                       later. Stamp to stamp: median_us, p99_us.
//   BarePromiseHandOff  the same rounds, a plain thread stamping and setting a
//                       boost::promise<void>; the main thread waits on its
//                       future and stamps when it returns.
//   AfterEachBuild      AfterEachFuture::build over 1000 predecessors, all
//                       finished or all running (BenchTask futures that have
//                       their language objects). Only the build is timed; the
//                       continuations run off the clock. ns_per_predecessor.
//   PoolSubmit          1000 LocalPool::submit of a trivial function, both
//                       workers held in gated functions (the work only queues)
//                       or idle (they wake and run it). ns_per_submit.
//   Chain               N AfterAllFuture levels, each on the one before, the
//                       last awaited with FutureBase::fetchNext or with
//                       FutureBase::wait for Finished (both run queued work
//                       and wake when a task finishes or work is queued). The
//                       head is a finished future, or a gated
//                       evaluation let go 5 ms after the wait starts. Timed:
//                       from the wait's start, or the head's stamp, to the
//                       return. us_per_level; build_ns_per_level (untimed).
//   ContinuationMemory  an AfterAllFuture built over one finished predecessor
//                       (made beforehand), counted by replaced global operator
//                       new/delete on this thread. Per continuation: bytes
//                       allocated, bytes live while it is held, allocations.

#include <parallel/language/future/AfterAllFuture.hpp>
#include <parallel/language/future/AfterEachFuture.hpp>
#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/Module.hpp>

#include <iqm/Iqm.hpp>
#include <kvm/KVM.hpp>
#include <localpool/LocalPool.hpp>
#include <matrix/dvArray.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>
#include <boost/thread/future.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <thread>
#include <tuple>
#include <vector>

namespace {

// Allocation counting as in FutureMemoryBench: each block starts with one
// alignment unit holding its size and whether it was counted (allocated while
// this thread's flag was set). Array and nothrow forms forward to these;
// over-aligned ones keep the standard library's operators, uncounted.
thread_local bool countingOnThisThread = false;
std::atomic<long long> allocatedBytes{0}, liveBytes{0}, allocationCount{0};
constexpr std::size_t kHeaderSpace = alignof(std::max_align_t);

struct BlockHeader {
    std::size_t size;
    bool counted;
};
static_assert(sizeof(BlockHeader) <= kHeaderSpace);

} // namespace

void* operator new(std::size_t size) {
    auto* raw = static_cast<char*>(std::malloc(kHeaderSpace + size));
    if (raw == nullptr) {
        throw std::bad_alloc();
    }
    const BlockHeader header{size, countingOnThisThread};
    std::memcpy(raw, &header, sizeof header);
    if (header.counted) {
        allocatedBytes += static_cast<long long>(size);
        liveBytes += static_cast<long long>(size);
        ++allocationCount;
    }
    return raw + kHeaderSpace;
}
void operator delete(void* pointer) noexcept {
    if (pointer == nullptr) {
        return;
    }
    char* raw = static_cast<char*>(pointer) - kHeaderSpace;
    BlockHeader header;
    std::memcpy(&header, raw, sizeof header);
    if (header.counted) {
        liveBytes -= static_cast<long long>(header.size);
    }
    std::free(raw);
}
void operator delete(void* pointer, std::size_t) noexcept {
    operator delete(pointer);
}

namespace {

namespace pf = parallel::language::future;
using Arrays = std::vector<boost::intrusive_ptr<dvArray>>;
using Futures = std::vector<std::shared_ptr<pf::FutureBase>>;

constexpr long long kPredecessors = 1000;
const pf::Seconds kNoTimeout(std::numeric_limits<double>::max());

long long nowNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

boost::intrusive_ptr<dvArray> scalar(double value) {
    return {matrix::to_korvex(dvCreateDoubleScalar(value)), false};
}

boost::intrusive_ptr<dvArray> function(std::string name, matrix::FunctionBody body) {
    return {matrix::to_korvex(matrix::createFunctionHandle(std::move(name), std::move(body))),
            false};
}

Arrays identityBody(std::size_t numOutputs, const Arrays& inputs) {
    return numOutputs == 0 ? Arrays{} : Arrays{inputs.at(0)};
}

// `counter` in ns per item: `nanoseconds` spent over all iterations.
void reportPerItem(benchmark::State& state, const char* counter, long long nanoseconds,
                   long long items) {
    state.counters[counter] = double(nanoseconds) / double(state.iterations() * items);
}

// The calling thread as an interpreter with the module initialised.
struct Interpreter {
    std::shared_ptr<kvm::KVM> kvm = kvm::KVM::create();
    Interpreter() { KVInitialize_libqzparallellanguagefuture(); }

    // Runs all queued work: continuations, cache callbacks, array releases.
    static void drain() {
        while (
            iqm::Iqm::getCurrent()->processOnce({u"parallel", u"serialQueueWork"}, std::nullopt)) {
        }
    }
};

// A future of one output (1) over a BenchTask advanced to `state`.
std::shared_ptr<pf::FevalFuture> benchFuture(pf::FutureState state,
                                             std::shared_ptr<bench::BenchTask>* task = nullptr) {
    auto made = std::make_shared<bench::BenchTask>(
        pf::OutputsOrError(std::optional<pf::DvArrayVector>(pf::DvArrayVector{scalar(1.0)})));
    auto future = std::make_shared<pf::FevalFuture>(nullptr, nullptr, 1, pf::DvArrayVector{}, made);
    made->advanceTo(state);
    if (task != nullptr) {
        *task = made;
    }
    return future;
}

// Go signals of gated rounds: round r may finish once `go` reaches r. The
// starter thread gives a requested round its go after `pause`; the gated
// function stamps `finishedAt` when let go. Destruction lets every round go.
class GoSignals {
public:
    explicit GoSignals(std::chrono::microseconds pause)
        : starter_([this, pause] {
              for (long long done = 0;;) {
                  requested_.wait(done);
                  if ((done = requested_.load()) < 0) {
                      return;
                  }
                  std::this_thread::sleep_for(pause);
                  release(done);
              }
          }) {}
    ~GoSignals() {
        request(-1);
        starter_.join();
        release(std::numeric_limits<long long>::max());
    }
    void request(long long round) {
        requested_.store(round);
        requested_.notify_one();
    }
    void release(long long round) {
        go.store(round);
        go.notify_all();
    }
    void awaitGo(long long round) const {
        for (long long seen = go.load(); seen < round; seen = go.load()) {
            go.wait(seen);
        }
    }

    std::atomic<long long> go{0};
    std::atomic<long long> finishedAt{0};

private:
    std::atomic<long long> requested_{0};
    std::thread starter_;
};

// The gated pool function: its input is the round, its output too.
boost::intrusive_ptr<dvArray> gatedFunction(GoSignals& signals) {
    return function("gated", [&signals](std::size_t, const Arrays& inputs) -> Arrays {
        signals.awaitGo(static_cast<long long>(dvGetDoubles(inputs.at(0).get())[0]));
        signals.finishedAt.store(nowNanoseconds());
        return {inputs.at(0)};
    });
}

void BM_ContinuationHop(benchmark::State& state) {
    const Interpreter interpreter;
    localpool::LocalPool pool(2);
    GoSignals signals(std::chrono::microseconds(200));
    const auto gated = gatedFunction(signals);
    std::atomic<long long> startedAt{0};
    const auto stamp = function("stamp", [&startedAt](std::size_t n, const Arrays& inputs) {
        startedAt.store(nowNanoseconds());
        return identityBody(n, inputs);
    });
    std::vector<double> latencies;
    for (long long round = 0; auto _ : state) {
        latencies.clear();
        for (long long i = 0; i < state.range(0); ++i) {
            const Futures predecessor{pool.submit(gated, 1, {scalar(double(++round))})};
            Futures continuation{
                pf::AfterAllFuture::build(nullptr, stamp, 1, predecessor, {}, false)};
            signals.request(round);
            const auto [fetched, index, outputs] =
                pf::FutureBase::fetchNext(std::move(continuation), 1, kNoTimeout);
            if (fetched != pf::FetchNextState::Fetched || outputs.size() != 1) {
                state.SkipWithError("the continuation did not deliver its output");
                return;
            }
            latencies.push_back(double(startedAt.load() - signals.finishedAt.load()));
        }
    }
    bench::reportPercentiles(state, std::move(latencies));
}

void BM_BarePromiseHandOff(benchmark::State& state) {
    GoSignals signals(std::chrono::microseconds(200));
    // One promise per round, all made before the worker starts.
    std::vector<boost::promise<void>> promises(state.max_iterations * state.range(0) + 1);
    std::thread worker([&] {
        for (long long round = 1; round < std::ssize(promises); ++round) {
            signals.awaitGo(round);
            signals.finishedAt.store(nowNanoseconds());
            promises[round].set_value();
        }
    });
    std::vector<double> latencies;
    for (long long round = 0; auto _ : state) {
        latencies.clear();
        for (long long i = 0; i < state.range(0); ++i) {
            boost::future<void> done = promises[++round].get_future();
            signals.request(round);
            done.wait();
            latencies.push_back(double(nowNanoseconds() - signals.finishedAt.load()));
        }
    }
    signals.release(std::numeric_limits<long long>::max()); // the rest nobody waits for
    worker.join();
    bench::reportPercentiles(state, std::move(latencies));
}

void BM_AfterEachBuild(benchmark::State& state, pf::FutureState predecessorState) {
    const Interpreter interpreter;
    const auto identity = function("identity", identityBody);
    long long total = 0;
    for (auto _ : state) {
        std::vector<std::shared_ptr<bench::BenchTask>> tasks(kPredecessors);
        Futures predecessors;
        for (auto& task : tasks) {
            predecessors.push_back(benchFuture(predecessorState, &task));
        }
        // Their language objects, held as the language holds the futures it
        // passes (a future's object lives only while something holds it).
        const matrix::unique_dvArray objects = pf::FutureBase::toKorvexArray(predecessors, {});
        const long long start = nowNanoseconds();
        auto future = pf::AfterEachFuture::build(nullptr, identity, 1, predecessors, {}, false);
        const long long took = nowNanoseconds() - start;
        state.SetIterationTime(double(took) / 1e9);
        total += took;
        for (auto& task : tasks) {
            if (task->getState() != pf::FutureState::Finished) {
                task->doNotifyFinished(); // releases its continuation
            }
        }
        Interpreter::drain();
    }
    reportPerItem(state, "ns_per_predecessor", total, kPredecessors);
}

void BM_PoolSubmit(benchmark::State& state, bool holdWorkers) {
    const Interpreter interpreter;
    localpool::LocalPool pool(2);
    GoSignals signals(std::chrono::microseconds(0)); // released here, not by the starter
    const auto gated = gatedFunction(signals);
    const auto nothing = function("nothing", identityBody);
    long long total = 0;
    for (long long round = 0; auto _ : state) {
        Futures futures;
        if (holdWorkers) {
            ++round;
            futures = {pool.submit(gated, 1, {scalar(double(round))}),
                       pool.submit(gated, 1, {scalar(double(round))})};
            pf::FutureBase::wait(futures, pf::FutureState::Running, kNoTimeout);
        }
        const long long start = nowNanoseconds();
        for (long long i = 0; i < kPredecessors; ++i) {
            futures.push_back(pool.submit(nothing, 0, {}));
        }
        const long long took = nowNanoseconds() - start;
        state.SetIterationTime(double(took) / 1e9);
        total += took;
        signals.release(round);
        pf::FutureBase::wait(std::move(futures), pf::FutureState::Finished, kNoTimeout);
    }
    reportPerItem(state, "ns_per_submit", total, kPredecessors);
}

enum class Head { Finished, Pool };
enum class Await { FetchNext, Wait };

// Chains of state.range(0) levels on `head`, the last one awaited by `await`.
void BM_Chain(benchmark::State& state, Head head, Await await) {
    const Interpreter interpreter;
    localpool::LocalPool pool(2);
    GoSignals signals(std::chrono::milliseconds(5));
    const auto gated = gatedFunction(signals);
    const auto identity = function("identity", identityBody);
    const long long levels = state.range(0);
    long long buildTotal = 0, chainTotal = 0;
    for (long long round = 0; auto _ : state) {
        std::shared_ptr<pf::FutureBase> last =
            head == Head::Pool ? pool.submit(gated, 1, {scalar(double(++round))})
                               : benchFuture(pf::FutureState::Finished);
        const long long buildStart = nowNanoseconds();
        for (long long k = 0; k < levels; ++k) {
            last = pf::AfterAllFuture::build(nullptr, identity, 1, {last}, {}, false);
        }
        const long long start = nowNanoseconds();
        if (head == Head::Pool) {
            signals.request(round);
        }
        const bool done =
            await == Await::Wait
                ? pf::FutureBase::wait({last}, pf::FutureState::Finished, pf::Seconds(30.0))
                : std::get<0>(pf::FutureBase::fetchNext({last}, 1, kNoTimeout)) ==
                      pf::FetchNextState::Fetched;
        const long long end = nowNanoseconds();
        if (!done || last->getState() != pf::FutureState::Finished) {
            state.SkipWithError("the chain did not finish");
            return;
        }
        const long long took = end - (head == Head::Pool ? signals.finishedAt.load() : start);
        state.SetIterationTime(double(took) / 1e9);
        chainTotal += took;
        buildTotal += start - buildStart;
        Interpreter::drain();
    }
    state.counters["us_per_level"] = double(chainTotal) / 1e3 / double(state.iterations() * levels);
    reportPerItem(state, "build_ns_per_level", buildTotal, levels);
}

void BM_ContinuationMemory(benchmark::State& state) {
    const Interpreter interpreter;
    const auto identity = function("identity", identityBody);
    Futures predecessors, continuations;
    for (long long i = 0; i < kPredecessors; ++i) {
        predecessors.push_back(benchFuture(pf::FutureState::Finished));
    }
    // Their language objects, held for the whole run (see BM_AfterEachBuild).
    const matrix::unique_dvArray objects = pf::FutureBase::toKorvexArray(predecessors, {});
    const auto buildAll = [&] {
        for (const auto& predecessor : predecessors) {
            continuations.push_back(
                pf::AfterAllFuture::build(nullptr, identity, 1, {predecessor}, {}, false));
        }
    };
    buildAll(); // warm-up: one-time allocations of the library and the host
    Interpreter::drain();
    continuations.clear();
    allocatedBytes = allocationCount = 0;
    long long liveAfterRounds = 0;
    for (auto _ : state) {
        liveBytes = 0;
        countingOnThisThread = true;
        buildAll();
        countingOnThisThread = false;
        liveAfterRounds += liveBytes;
        state.PauseTiming();
        Interpreter::drain(); // runs the continuations
        continuations.clear();
        state.ResumeTiming();
    }
    const auto made = double(state.iterations() * kPredecessors);
    state.counters["bytes_allocated"] = double(allocatedBytes) / made;
    state.counters["bytes_live"] = double(liveAfterRounds) / made;
    state.counters["allocations"] = double(allocationCount) / made;
}

void latencyRounds(benchmark::internal::Benchmark* b) {
    b->Arg(1000)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
}
void builds(benchmark::internal::Benchmark* b) {
    b->Iterations(20)->UseManualTime()->Unit(benchmark::kMicrosecond);
}
void chains(benchmark::internal::Benchmark* b) {
    b->Arg(100)->Arg(1000)->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);
}

} // namespace

BENCHMARK(BM_ContinuationHop)->Apply(latencyRounds);
BENCHMARK(BM_BarePromiseHandOff)->Apply(latencyRounds);
BENCHMARK_CAPTURE(BM_AfterEachBuild, finished, pf::FutureState::Finished)->Apply(builds);
BENCHMARK_CAPTURE(BM_AfterEachBuild, running, pf::FutureState::Running)->Apply(builds);
BENCHMARK_CAPTURE(BM_PoolSubmit, held_workers, true)->Apply(builds);
BENCHMARK_CAPTURE(BM_PoolSubmit, idle_workers, false)->Apply(builds);
BENCHMARK_CAPTURE(BM_Chain, fetchNext_finished_head, Head::Finished, Await::FetchNext)
    ->Apply(chains);
BENCHMARK_CAPTURE(BM_Chain, fetchNext_pool_head, Head::Pool, Await::FetchNext)->Apply(chains);
BENCHMARK_CAPTURE(BM_Chain, wait_finished_head, Head::Finished, Await::Wait)->Apply(chains);
BENCHMARK_CAPTURE(BM_Chain, wait_pool_head, Head::Pool, Await::Wait)->Apply(chains);
BENCHMARK(BM_ContinuationMemory)->Iterations(20)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
