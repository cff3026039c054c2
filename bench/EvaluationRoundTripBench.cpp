// The round trip of one evaluation: hand a trivial function (it returns its
// input) to two worker threads and wait for its output on the calling thread.
//
//   PoolFetchOutputs    LocalPool(2) submit + FutureBase::fetchOutputs on an
//                       interpreter thread: task, future, notifications, the
//                       interruptible wait and the output gathering.
//   StdAsync            std::async(std::launch::async) + get() of the same
//                       function body: one fresh thread per round trip.
//   BarePoolPromise     a minimal pool of two std::threads fed through a
//                       mutex/condvar queue of std::function; the job sets a
//                       boost::promise<void> the caller waits on.
//
// Times are wall-clock nanoseconds per round trip.

#include <parallel/language/future/FutureBase.hpp>

#include <kvm/KVM.hpp>
#include <localpool/LocalPool.hpp>
#include <matrix/dvArray.hpp>

#include <benchmark/benchmark.h>
#include <boost/thread/future.hpp>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

namespace pf = parallel::language::future;

using Arrays = std::vector<boost::intrusive_ptr<dvArray>>;

Arrays identityBody(std::size_t /*numOutputs*/, const Arrays& inputs) {
    return {inputs.at(0)};
}

boost::intrusive_ptr<dvArray> scalar(double value) {
    return {matrix::to_korvex(dvCreateDoubleScalar(value)), false};
}

boost::intrusive_ptr<dvArray> identityFunction() {
    return {matrix::to_korvex(matrix::createFunctionHandle("identity", identityBody)), false};
}

// Two threads taking jobs from one queue, oldest first.
class MinimalThreadPool {
public:
    explicit MinimalThreadPool(std::size_t numThreads) {
        for (std::size_t i = 0; i < numThreads; ++i) {
            threads_.emplace_back([this] { runJobs(); });
        }
    }
    ~MinimalThreadPool() {
        {
            std::lock_guard lock(mutex_);
            closed_ = true;
        }
        jobAdded_.notify_all();
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    MinimalThreadPool(const MinimalThreadPool&) = delete;
    MinimalThreadPool& operator=(const MinimalThreadPool&) = delete;

    void post(std::function<void()> job) {
        {
            std::lock_guard lock(mutex_);
            jobs_.push_back(std::move(job));
        }
        jobAdded_.notify_one();
    }

private:
    void runJobs() {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock lock(mutex_);
                jobAdded_.wait(lock, [this] { return closed_ || !jobs_.empty(); });
                if (jobs_.empty()) {
                    return;
                }
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            job();
        }
    }

    std::mutex mutex_;
    std::condition_variable jobAdded_;
    std::deque<std::function<void()>> jobs_;
    bool closed_ = false;
    std::vector<std::thread> threads_;
};

void BM_PoolFetchOutputsRoundTrip(benchmark::State& state) {
    const auto interpreter = kvm::KVM::create();
    localpool::LocalPool pool(2);
    const auto function = identityFunction();
    const auto input = scalar(1.0);
    for (auto _ : state) {
        std::shared_ptr<pf::FutureBase> future = pool.submit(function, 1, {input});
        pf::DvArrayVector outputs = pf::FutureBase::fetchOutputs({std::move(future)}, true, 1);
        benchmark::DoNotOptimize(outputs.front().get());
    }
}

void BM_StdAsyncRoundTrip(benchmark::State& state) {
    const Arrays inputs{scalar(1.0)};
    for (auto _ : state) {
        Arrays outputs =
            std::async(std::launch::async, [&] { return identityBody(1, inputs); }).get();
        benchmark::DoNotOptimize(outputs.front().get());
    }
}

void BM_BarePoolPromiseRoundTrip(benchmark::State& state) {
    MinimalThreadPool pool(2);
    const Arrays inputs{scalar(1.0)};
    for (auto _ : state) {
        Arrays outputs;
        // The job owns the promise: set_value may still be returning on the
        // worker when get() here has already come back.
        auto done = std::make_shared<boost::promise<void>>();
        boost::future<void> doneFuture = done->get_future();
        pool.post([&outputs, &inputs, done] {
            outputs = identityBody(1, inputs);
            done->set_value();
        });
        doneFuture.get();
        benchmark::DoNotOptimize(outputs.front().get());
    }
}

} // namespace

BENCHMARK(BM_PoolFetchOutputsRoundTrip)->UseRealTime()->Unit(benchmark::kNanosecond);
BENCHMARK(BM_StdAsyncRoundTrip)->UseRealTime()->Unit(benchmark::kNanosecond);
BENCHMARK(BM_BarePoolPromiseRoundTrip)->UseRealTime()->Unit(benchmark::kNanosecond);

BENCHMARK_MAIN();
