#pragma once

// A pool of worker threads that evaluates language functions: each
// submission becomes a task (a TaskBase) and its FevalFuture.
//
// Threads: submit from any thread. Workers call the task notifications.
// Destroying the pool cancels the work still queued, asks running work to
// stop and joins the workers; futures stay valid afterwards.

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FevalOnAllFuture.hpp>

#include <kcos/COSInterface.hpp>
#include <matrix/dvArray.hpp>

#include <cstddef>
#include <memory>

namespace localpool {

using parallel::language::future::DvArrayVector;
using parallel::language::future::FevalFuture;
using parallel::language::future::FevalOnAllFuture;

class LocalPool {
public:
    // `numWorkers` 0 means one worker per hardware thread.
    explicit LocalPool(std::size_t numWorkers = 0);
    ~LocalPool();
    LocalPool(const LocalPool&) = delete;
    LocalPool& operator=(const LocalPool&) = delete;

    std::size_t getNumWorkers() const noexcept;

    // Queues the evaluation of `function` (a function-handle array) on
    // `inputs` for `numOutputs` outputs. The worker sees its own copies of
    // the inputs; what the function prints goes into the task's diary; an
    // error of the function becomes the task's error. Throws
    // std::invalid_argument for a null or non-function `function` and
    // std::logic_error once the pool is shutting down. Any thread.
    std::shared_ptr<FevalFuture> submit(boost::intrusive_ptr<dvArray> function,
                                        unsigned int numOutputs, DvArrayVector inputs,
                                        kcos::COSInterface* parent = nullptr);

    // Queues the evaluation of `function` once on every worker: one task per
    // worker, each run by that worker only, gathered in a FevalOnAllFuture
    // (task i runs on worker i). Errors as for submit. Any thread.
    std::shared_ptr<FevalOnAllFuture> submitOnAll(boost::intrusive_ptr<dvArray> function,
                                                  unsigned int numOutputs, DvArrayVector inputs,
                                                  kcos::COSInterface* parent = nullptr);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Inside a function running on a pool worker: whether its task was asked to
// stop (cancelled while running, or the pool is shutting down). False
// elsewhere.
bool stopRequested() noexcept;

} // namespace localpool
