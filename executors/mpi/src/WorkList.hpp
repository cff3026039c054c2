#pragma once

// The client's schedule for an open pool: the tasks waiting for any worker
// (oldest first), the tasks pinned to each worker (oldest first), the one
// task each worker has in hand, and the stop requests not yet sent.
//
// A task here is Waiting (shared or pinned), then InHand once the link
// thread takes it for a free worker, until its result is in (finish). No
// task is sent ahead to a busy worker, where it could wait behind a long
// evaluation while another worker is free. A waiting task that is cancelled,
// or abandoned by close(), leaves without ever being sent. Cancelling a task
// in hand, or closing, asks its worker to stop it.
//
// Ownership: the pool and its link thread share it; tasks reach it weakly.
// Threads: any thread pushes, cancels and closes; the link thread takes
// orders, looks up and finishes tasks in hand, and waits for news. One mutex
// guards everything; one condition variable wakes the link thread.

#include "ClusterTask.hpp"
#include "PollPacer.hpp"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace mpipool {

class WorkList {
public:
    using TaskPtr = std::shared_ptr<ClusterTask>;

    // Workers are numbered 0 to numWorkers - 1.
    explicit WorkList(std::size_t numWorkers);

    std::size_t getNumWorkers() const noexcept { return inHand_.size(); }

    // Appends `task` for any worker; false (nothing queued) once closed.
    bool push(TaskPtr task);
    // Appends tasks[i] for worker i (one per worker). All or nothing: false
    // once closed.
    bool pushPinned(std::vector<TaskPtr> tasks);
    // Removes a waiting task, or asks the worker that has it to stop.
    // True when the task was waiting: no worker will have it.
    bool cancel(const ClusterTask& task);
    // Refuses further work, asks the workers to stop what they have, and
    // hands back the waiting tasks (for the caller to cancel).
    std::vector<TaskPtr> close();

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
    Orders takeOrders();
    // The task `worker` has in hand if its id is `id`, else null. Link thread.
    TaskPtr inHand(std::size_t worker, codec::TaskId id) const;
    // Takes the task `id` from the hand of `worker`, which is free again;
    // null (and nothing changes) if it has another. Link thread.
    TaskPtr finish(std::size_t worker, codec::TaskId id);
    // Waits for orders: paced by `pacer` while workers have tasks in hand
    // (their messages must be polled), without limit otherwise. Link thread.
    void waitForOrders(PollPacer& pacer);

private:
    bool hasOrders() const;              // with mutex_ held
    bool anyInHand() const;              // with mutex_ held
    TaskPtr nextFor(std::size_t worker); // with mutex_ held; null when none waits

    mutable std::mutex mutex_;
    std::condition_variable news_;
    std::deque<TaskPtr> waiting_;
    std::vector<std::deque<TaskPtr>> pinned_; // one per worker
    std::vector<TaskPtr> inHand_;             // one per worker; null when free
    std::vector<Stop> stops_;
    bool closed_ = false;
};

} // namespace mpipool
