#pragma once

// A pool whose workers are the worker processes of an MPI cluster, with the
// local pool's contract: each submission becomes a task (a TaskBase) and its
// FevalFuture, and goes Pending, Queued, Running (when its worker starts it)
// and Finished. A future reads the same whether its work ran in a thread or
// on another machine: outputs, errors (as envelopes with causes) and diary.
//
// Functions cross by name (see FunctionRegistry.hpp); arrays cross as values
// (double, logical, char, cell, struct, registered function handles). What
// cannot be sent is refused when submitted, with the host errors
// "KORVEX:mpipool:UnregisteredFunction" and "KORVEX:mpipool:UnsupportedArray".
//
// States: Open -> ShutDown (shutdown() or the destructor: waiting work is
// cancelled and never sent, running work is asked to stop, and every worker
// reports back before it returns; later submissions are refused with
// "KORVEX:executor:PoolShutDown"). The worker processes stay in serve() for
// the next pool until the cluster ends.
//
// Lost workers: a worker process that dies (under mpirun --enable-recovery,
// which keeps the job going) is noticed at once through its control
// connection (a machine that stops answering, within a few seconds). The work
// it had started, and the FevalOnAll tasks pinned to it, fail with
// "KORVEX:mpipool:WorkerLost" (argument: its rank); what it had not started
// runs on the others, never twice; getNumWorkers() counts the rest. With no
// worker left, unfinished work fails with "KORVEX:mpipool:NoWorkersLeft", and
// so does every new submission.
//
// Threads: any thread, on rank 0 only. Task notifications run on the pool's
// link thread, or on the interpreter thread that opened the pool while it
// waits there (it takes the workers' reports in itself). Futures stay valid
// after the pool is gone.

#include <executor/Executor.hpp>
#include <executor/StopRequest.hpp>
#include <mpipool/Cluster.hpp>

#include <cstddef>
#include <memory>
#include <optional>

namespace mpipool {

using parallel::language::future::DvArrayVector;
using parallel::language::future::FevalFuture;
using parallel::language::future::FevalOnAllFuture;

class MpiPool final : public executor::Executor {
public:
    // A pool over the first `numWorkers` worker processes of `cluster`, all of
    // them by default. Host errors: "KORVEX:mpipool:NotClient" off rank 0,
    // "KORVEX:mpipool:NoWorkers" in a job of one process,
    // "KORVEX:mpipool:InvalidNumWorkers" for 0 or more than there are, and
    // "KORVEX:mpipool:PoolAlreadyOpen" while another pool is open.
    explicit MpiPool(Cluster& cluster, std::optional<std::size_t> numWorkers = std::nullopt);
    ~MpiPool() override;

    std::size_t getNumWorkers() const noexcept override;

    // Errors of a function (or of the evaluation on the worker) become the
    // task's error. Host errors: "KORVEX:executor:InvalidFunction" for a null
    // or non-function `function`, the host's maxlhs error for more than
    // kcos::kMaxNumOutputs outputs, the refusals above, and
    // "KORVEX:executor:PoolShutDown".
    std::shared_ptr<FevalFuture> submit(boost::intrusive_ptr<dvArray> function,
                                        unsigned int numOutputs, DvArrayVector inputs,
                                        kcos::COSInterface* parent = nullptr) override;
    // Task i runs on worker i (the pool's i-th worker process); a task for a
    // worker that is lost fails with "KORVEX:mpipool:WorkerLost".
    std::shared_ptr<FevalOnAllFuture> submitOnAll(boost::intrusive_ptr<dvArray> function,
                                                  unsigned int numOutputs, DvArrayVector inputs,
                                                  kcos::COSInterface* parent = nullptr) override;

    // Cancels the waiting work, asks running work to stop and waits until
    // every worker has reported back (a running function that never returns
    // keeps it waiting). Called from a task notification, it does not wait.
    // Idempotent.
    void shutdown() noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Inside a function running on a worker process: whether its task was asked
// to stop (cancelled while running, or its pool is shutting down). False
// elsewhere. The same function for every pool.
using executor::stopRequested;

} // namespace mpipool
