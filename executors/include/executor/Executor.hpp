#pragma once

// What the host asks of a pool that evaluates language functions, whatever
// runs them: worker threads (localpool::LocalPool) or worker processes
// (mpipool::MpiPool). The language classes ("parallel.internal.queue.
// FutureCreation", the constructors parallel.FevalFuture(...) and
// parallel.FevalOnAllFuture(...)) start their evaluations through it.
//
// Threads: every member may be called from any thread.

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FevalOnAllFuture.hpp>

#include <kcos/COSInterface.hpp>
#include <matrix/dvArray.hpp>

#include <cstddef>
#include <memory>

namespace executor {

using parallel::language::future::DvArrayVector;
using parallel::language::future::FevalFuture;
using parallel::language::future::FevalOnAllFuture;

class Executor {
public:
    virtual ~Executor() = default;
    Executor(const Executor&) = delete;
    Executor& operator=(const Executor&) = delete;

    // The number of workers evaluations are spread over; never 0.
    virtual std::size_t getNumWorkers() const noexcept = 0;

    // Queues the evaluation of `function` (a function-handle array) on
    // `inputs` for `numOutputs` outputs. The work sees its own copies of the
    // inputs; its printed text becomes the diary and its error the future's
    // error. Refuses, by throwing, a function or inputs it cannot run and
    // any work once it is shutting down.
    virtual std::shared_ptr<FevalFuture> submit(boost::intrusive_ptr<dvArray> function,
                                                unsigned int numOutputs, DvArrayVector inputs,
                                                kcos::COSInterface* parent = nullptr) = 0;

    // Queues the evaluation once on every worker, task i on worker i,
    // gathered in one future. Refuses work as submit does.
    virtual std::shared_ptr<FevalOnAllFuture> submitOnAll(boost::intrusive_ptr<dvArray> function,
                                                          unsigned int numOutputs,
                                                          DvArrayVector inputs,
                                                          kcos::COSInterface* parent = nullptr) = 0;

protected:
    Executor() = default;
};

} // namespace executor
