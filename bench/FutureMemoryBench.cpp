// Memory per future: what making one FevalFuture with its task and a 1-by-1
// double input allocates on the heap. This executable replaces the global
// operator new and delete; while the calling thread's counting flag is set
// every allocation is added to the counters, and freeing a block that was
// counted takes it off the live bytes again.
//
//   Direct        a FevalFuture over the tests' minimal task, the input
//                 made for it; the function handle is shared by all.
//   PoolSubmit    LocalPool::submit of the same evaluation, with both workers
//                 held in a gated function so that nothing submitted runs
//                 while it is counted (the pool's task and its queue entry
//                 are included; running the function is not).
//
//   PoolFuturesRss  (run first, once) 100,000 pool futures of the same evaluation held alive at
//                 once (workers held likewise), and the growth of the
//                 process's resident set size from before the first submit
//                 to after the last, per future: what the operating system
//                 sees, allocator overhead included.
//
// Counters per future: bytes allocated, bytes still live afterwards (the
// resident cost while the future is held) and number of allocations; for
// PoolFuturesRss, rss_bytes_per_future.

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/TaskBase.hpp>

#include <localpool/LocalPool.hpp>
#include <matrix/dvArray.hpp>

#include "BenchSupport.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

namespace {

thread_local bool countingOnThisThread = false;
std::atomic<long long> allocatedBytes{0};
std::atomic<long long> liveBytes{0};
std::atomic<long long> allocationCount{0};

// Each block starts with a header holding its size and whether it was
// counted; the header takes a whole alignment unit so that the block behind
// it keeps its alignment.
struct BlockHeader {
    std::size_t size;
    bool counted;
};

void* allocate(std::size_t size, std::size_t alignment) {
    alignment = std::max(alignment, alignof(std::max_align_t));
    const std::size_t headerSpace = std::max(alignment, sizeof(BlockHeader));
    void* raw =
        std::aligned_alloc(alignment, (headerSpace + size + alignment - 1) / alignment * alignment);
    if (raw == nullptr) {
        throw std::bad_alloc();
    }
    auto* block = static_cast<char*>(raw) + headerSpace;
    const BlockHeader header{size, countingOnThisThread};
    std::memcpy(block - sizeof(BlockHeader), &header, sizeof header);
    if (countingOnThisThread) {
        allocatedBytes += static_cast<long long>(size);
        liveBytes += static_cast<long long>(size);
        ++allocationCount;
    }
    return block;
}

void release(void* pointer, std::size_t alignment) noexcept {
    if (pointer == nullptr) {
        return;
    }
    alignment = std::max(alignment, alignof(std::max_align_t));
    const std::size_t headerSpace = std::max(alignment, sizeof(BlockHeader));
    auto* block = static_cast<char*>(pointer);
    BlockHeader header;
    std::memcpy(&header, block - sizeof(BlockHeader), sizeof header);
    if (header.counted) {
        liveBytes -= static_cast<long long>(header.size);
    }
    std::free(block - headerSpace);
}

} // namespace

// The array and nothrow forms of the standard library forward to these.
void* operator new(std::size_t size) {
    return allocate(size, 0);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* pointer) noexcept {
    release(pointer, 0);
}
void operator delete(void* pointer, std::size_t) noexcept {
    release(pointer, 0);
}
void operator delete(void* pointer, std::align_val_t alignment) noexcept {
    release(pointer, static_cast<std::size_t>(alignment));
}
void operator delete(void* pointer, std::size_t, std::align_val_t alignment) noexcept {
    release(pointer, static_cast<std::size_t>(alignment));
}

namespace {

namespace pf = parallel::language::future;
using Arrays = std::vector<boost::intrusive_ptr<dvArray>>;
using Futures = std::vector<std::shared_ptr<pf::FevalFuture>>;

constexpr std::size_t futuresPerRound = 1000;

boost::intrusive_ptr<dvArray> scalar(double value) {
    return {matrix::to_korvex(dvCreateDoubleScalar(value)), false};
}

boost::intrusive_ptr<dvArray> function(std::string name, matrix::FunctionBody body) {
    return {matrix::to_korvex(matrix::createFunctionHandle(std::move(name), std::move(body))),
            false};
}

Arrays identityBody(std::size_t /*numOutputs*/, const Arrays& inputs) {
    return {inputs.at(0)};
}

// Counts what `makeFutures` allocates on this thread, per future made; the
// futures are destroyed only after counting.
template <class MakeFutures>
void countPerFuture(benchmark::State& state, MakeFutures makeFutures) {
    Futures futures;
    futures.reserve(futuresPerRound);
    makeFutures(futures); // warm-up: one-time allocations of the library and the host
    futures.clear();
    allocatedBytes = allocationCount = 0;
    long long liveAfterRounds = 0;
    for (auto _ : state) {
        liveBytes = 0;
        countingOnThisThread = true;
        makeFutures(futures);
        countingOnThisThread = false;
        liveAfterRounds += liveBytes;
        state.PauseTiming();
        futures.clear();
        state.ResumeTiming();
    }
    const auto made = static_cast<double>(state.iterations() * futuresPerRound);
    state.counters["bytes_allocated"] = static_cast<double>(allocatedBytes) / made;
    state.counters["bytes_live"] = static_cast<double>(liveAfterRounds) / made;
    state.counters["allocations"] = static_cast<double>(allocationCount) / made;
}

void BM_DirectFevalFutureMemory(benchmark::State& state) {
    const auto identity = function("identity", identityBody);
    countPerFuture(state, [&](Futures& futures) {
        for (std::size_t i = 0; i < futuresPerRound; ++i) {
            futures.push_back(std::make_shared<pf::FevalFuture>(
                nullptr, identity, 1, pf::DvArrayVector{scalar(1.0)},
                std::make_shared<bench::BenchTask>()));
        }
    });
}

constexpr std::size_t kPoolWorkers = 2;
constexpr std::size_t kRssFutures = 100'000;

// A pool whose workers both sit in a gated function until the holder goes,
// so that submitted work only queues. Declared before the pool, the latches
// outlive it (it joins the workers).
class HeldPool {
public:
    HeldPool() {
        const auto hold = function("hold", [this](std::size_t, const Arrays&) -> Arrays {
            workersHeld_.count_down();
            release_.wait();
            return {};
        });
        for (std::size_t i = 0; i < kPoolWorkers; ++i) {
            holders_.push_back(pool_.submit(hold, 0, {}));
        }
        workersHeld_.wait();
    }
    ~HeldPool() { release_.count_down(); }
    HeldPool(const HeldPool&) = delete;
    HeldPool& operator=(const HeldPool&) = delete;

    localpool::LocalPool& pool() { return pool_; }

private:
    std::latch workersHeld_{kPoolWorkers};
    std::latch release_{1};
    localpool::LocalPool pool_{kPoolWorkers};
    Futures holders_;
};

void BM_PoolSubmitFutureMemory(benchmark::State& state) {
    HeldPool held;
    localpool::LocalPool& pool = held.pool();
    const auto identity = function("identity", identityBody);
    countPerFuture(state, [&](Futures& futures) {
        for (std::size_t i = 0; i < futuresPerRound; ++i) {
            futures.push_back(pool.submit(identity, 1, {scalar(1.0)}));
        }
    });
}

void BM_PoolFuturesRss(benchmark::State& state) {
    const auto identity = function("identity", identityBody);
    double grownPerFuture = 0.0;
    for (auto _ : state) {
        HeldPool held;
        Futures futures;
        futures.reserve(kRssFutures);
        const double before = bench::residentBytes();
        for (std::size_t i = 0; i < kRssFutures; ++i) {
            futures.push_back(held.pool().submit(identity, 1, {scalar(1.0)}));
        }
        grownPerFuture += (bench::residentBytes() - before) / static_cast<double>(kRssFutures);
    }
    state.counters["rss_bytes_per_future"] =
        grownPerFuture / static_cast<double>(state.iterations());
}

} // namespace

// First, and once: memory freed by an earlier round would be reused without
// growing the resident set.
BENCHMARK(BM_PoolFuturesRss)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DirectFevalFutureMemory)->Iterations(20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PoolSubmitFutureMemory)->Iterations(20)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
