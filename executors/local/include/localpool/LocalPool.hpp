#pragma once

// A pool of worker threads that evaluates language functions: each
// submission becomes a task (a TaskBase) and its FevalFuture.
//
// Threads: submit from any thread. Workers call the task notifications.
// Destroying the pool cancels the work still queued, asks running work to
// stop and waits for the workers, at most for the pool's shutdown grace
// period. A worker whose function is still running then is left to finish
// alone (detached): its task is cancelled at once, and the worker touches
// only state it shares (the work list, its task), never the pool. Futures
// stay valid afterwards.

#include <executor/Executor.hpp>
#include <executor/StopRequest.hpp>

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FevalOnAllFuture.hpp>

#include <kcos/COSInterface.hpp>
#include <matrix/dvArray.hpp>

#include <chrono>
#include <cstddef>
#include <memory>

namespace localpool {

using parallel::language::future::DvArrayVector;
using parallel::language::future::FevalFuture;
using parallel::language::future::FevalOnAllFuture;

class LocalPool : public executor::Executor {
public:
    // How long the destructor waits for running functions to return.
    static constexpr std::chrono::milliseconds kDefaultShutdownGrace{5000};

    // `numWorkers` 0 means one worker per hardware thread. `shutdownGrace`:
    // how long destruction waits for the running functions, once asked to
    // stop, before it cancels their tasks and leaves their workers behind
    // (zero: no wait; longer than a year: a year).
    explicit LocalPool(std::size_t numWorkers = 0,
                       std::chrono::milliseconds shutdownGrace = kDefaultShutdownGrace);
    ~LocalPool() override;
    LocalPool(const LocalPool&) = delete;
    LocalPool& operator=(const LocalPool&) = delete;

    std::size_t getNumWorkers() const noexcept override;

    // Queues the evaluation of `function` (a function-handle array) on
    // `inputs` for `numOutputs` outputs. The worker sees its own copies of
    // the inputs; what the function prints goes into the task's diary; an
    // error of the function becomes the task's error. Throws the host's
    // maxlhs error for more than kcos::kMaxNumOutputs outputs (before
    // anything is sized by the count), "KORVEX:executor:InvalidFunction" for
    // a null or non-function `function` and "KORVEX:executor:PoolShutDown"
    // once the pool is shutting down. Any thread.
    std::shared_ptr<FevalFuture> submit(boost::intrusive_ptr<dvArray> function,
                                        unsigned int numOutputs, DvArrayVector inputs,
                                        kcos::COSInterface* parent = nullptr) override;

    // Queues the evaluation of `function` once on every worker: one task per
    // worker, each run by that worker only, gathered in a FevalOnAllFuture
    // (task i runs on worker i). Errors as for submit. Any thread.
    std::shared_ptr<FevalOnAllFuture> submitOnAll(boost::intrusive_ptr<dvArray> function,
                                                  unsigned int numOutputs, DvArrayVector inputs,
                                                  kcos::COSInterface* parent = nullptr) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Inside a function running on a pool worker: whether its task was asked to
// stop (cancelled while running, or the pool is shutting down). False
// elsewhere. The same function for every pool.
using executor::stopRequested;

} // namespace localpool
