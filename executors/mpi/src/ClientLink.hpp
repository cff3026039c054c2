#pragma once

// The client's side of an open pool: the link thread, the only thread of
// rank 0 that calls MPI while the pool is open. It sends the work list's
// tasks to free workers, forwards stop requests, and turns the workers'
// messages into task notifications (Running, Finished) and results.
//
// States: Open -> Closing (close(): the work list refuses work, waiting
// tasks are cancelled, workers are asked to stop what they have) -> Finished
// (every worker has reported back; the thread has ended). Workers of the pool
// are ranks 1 to numWorkers of the communicator.
//
// Ownership: shared by the pool, the cluster (weakly) and the link thread,
// which keeps the link alive until it ends. The thread is detached; waiting
// for it is waiting for Finished.
//
// Threads: close() and waitUntilFinished() from any thread; run() is the link
// thread's.

#include "Codec.hpp"
#include "WorkList.hpp"

#include <boost/mpi/communicator.hpp>

#include <future>
#include <memory>
#include <optional>
#include <thread>

namespace mpipool {

class ClientLink : public std::enable_shared_from_this<ClientLink> {
public:
    // Starts the link thread.
    static std::shared_ptr<ClientLink> open(boost::mpi::communicator comm, std::size_t numWorkers);

    ClientLink(const ClientLink&) = delete;
    ClientLink& operator=(const ClientLink&) = delete;

    const std::shared_ptr<WorkList>& getWorkList() const noexcept { return work_; }

    // Refuses further work, cancels the waiting work and asks the workers to
    // stop what they run. Any thread.
    void close() noexcept;
    bool isFinished() const;
    // Waits until every worker has reported back and the thread has ended;
    // returns at once on the link thread itself. Any thread.
    void waitUntilFinished() const;
    bool isLinkThread() const noexcept;

private:
    // What a worker reported of a task: it started (no result), or its result.
    struct Event {
        std::shared_ptr<ClusterTask> task;
        std::optional<codec::ResultMessage> result;
        std::size_t worker; // 0-based: rank - 1
    };

    ClientLink(boost::mpi::communicator comm, std::size_t numWorkers);
    void run() noexcept;
    // Receives one message the probe found; a result frees its worker at
    // once. Nothing for messages about no task in hand. Link thread.
    std::optional<Event> receive(const boost::mpi::status& status);
    // Notifies the task of the event. Link thread.
    void deliver(Event& event);

    boost::mpi::communicator comm_;
    std::shared_ptr<WorkList> work_;
    std::shared_future<void> finished_;
    std::thread::id threadId_;
};

} // namespace mpipool
