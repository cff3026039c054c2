#pragma once

// The client's schedule for an open pool: a PinnedQueue whose workers are
// processes, served by the link thread, plus the stop requests not yet sent.
//
// The link thread hands each free worker its next task (takeOrders); no task
// is sent ahead to a busy worker, where it could wait behind a long
// evaluation while another worker is free. A task stays in its worker's hand
// until its result is in (finish). Cancelling a task in hand, or closing,
// queues a stop request for its worker.
//
// Threads: any thread pushes, cancels and closes; the link thread takes
// orders, looks up and finishes tasks in hand, and waits for news.

#include "ClusterTask.hpp"
#include "PollPacer.hpp"

#include <executor/PinnedQueue.hpp>

#include <cstddef>
#include <vector>

namespace mpipool {

class WorkList final : public executor::PinnedQueue<ClusterTask> {
public:
    using PinnedQueue::PinnedQueue;

    struct Send {
        std::size_t worker;
        TaskPtr task;
    };
    struct Stop {
        std::size_t worker;
        codec::TaskId task;
    };
    struct Orders {
        std::vector<Send> sends; // each now in hand of its worker
        std::vector<Stop> stops;
        bool drained = false; // closed, and every worker has reported back
    };
    // Gives every free worker its next task (its own pinned ones first) and
    // takes the pending stop requests. Link thread.
    Orders takeOrders() QZ_EXCLUDES(mutex_);
    // The task `worker` has in hand if its id is `id`, else null. Link thread.
    TaskPtr inHand(std::size_t worker, codec::TaskId id) const QZ_EXCLUDES(mutex_);
    // Takes the task `id` from the hand of `worker`, which is free again;
    // null (and nothing changes) if it has another. Link thread.
    TaskPtr finish(std::size_t worker, codec::TaskId id) QZ_EXCLUDES(mutex_);
    // Waits for orders: paced by `pacer` while workers have tasks in hand
    // (their messages must be polled), without limit otherwise. Link thread.
    void waitForOrders(PollPacer& pacer) QZ_EXCLUDES(mutex_);

private:
    void stopInHand(std::size_t worker, const ClusterTask& task) override QZ_REQUIRES(mutex_);
    bool hasOrders() const QZ_REQUIRES(mutex_);
    bool holds(std::size_t worker, codec::TaskId id) const QZ_REQUIRES(mutex_);

    std::vector<Stop> stops_ QZ_GUARDED_BY(mutex_);
};

} // namespace mpipool
