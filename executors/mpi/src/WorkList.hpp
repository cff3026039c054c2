#pragma once

// The client's schedule for an open pool: a PinnedQueue whose workers are
// processes, served by the link thread.
//
// A task is Waiting (in the queue), then InFlight at its worker once the
// link thread takes it (sent, queued there or running), until its result is
// in. A worker has at most `window` tasks in flight, which the link thread
// sets from how long its tasks run: one while they run long, so that no task
// waits behind a long one while another worker is free. Cancelling a task
// in flight, or closing, queues a stop request for its worker.
//
// A lost worker's tasks in flight that it reported started fail, as do the
// tasks pinned to it; those it never started go back to the queue for the
// others. It gets no more work.
//
// Threads: any thread pushes, cancels and closes, then wakes the link thread
// (news) or sends itself (takeSends); the link thread takes orders, looks up and finishes tasks in
// flight, and loses workers.

#include "ClusterTask.hpp"
#include "ControlChannel.hpp"

#include <executor/PinnedQueue.hpp>

#include <atomic>
#include <cstddef>
#include <deque>
#include <vector>

namespace mpipool {

class WorkList final : public executor::PinnedQueue<ClusterTask> {
public:
    explicit WorkList(std::size_t numWorkers);

    struct Send {
        std::size_t worker;
        std::vector<TaskPtr> tasks; // each now in flight
    };
    struct Stop {
        std::size_t worker;
        codec::TaskId task;
    };
    struct Orders {
        std::vector<Send> sends;
        std::vector<Stop> stops;
        std::vector<TaskPtr> unrunnable; // pinned to a lost worker, or no worker is left
        bool drained = false;            // closed, and nothing is in flight
    };
    // Fills every live worker's window (its own pinned tasks first) and takes
    // the pending stop requests. Link thread.
    Orders takeOrders(const std::vector<std::size_t>& window) QZ_EXCLUDES(mutex_);
    // The sends of takeOrders, for the live workers with nothing in flight
    // only: a busy worker's report brings the link thread, which sends its
    // next tasks then, batched. Any thread (with the link's MPI mutex).
    std::vector<Send> takeSendsToIdle(const std::vector<std::size_t>& window) QZ_EXCLUDES(mutex_);
    // Whether a live worker has nothing in flight. Any thread, without the
    // lock: a worker that turns idle just after is served by the link thread,
    // which takes its orders after the report that idled it.
    bool anyIdle() const noexcept { return idle_.load(std::memory_order_relaxed) > 0; }
    // Whether any work waits to be sent. Any thread.
    bool anyWaiting() const QZ_EXCLUDES(mutex_);
    // Whether a task in flight is not marked started. Any thread.
    bool anyUnstarted() const QZ_EXCLUDES(mutex_);
    // Whether no live worker has anything in flight. As anyIdle.
    bool allIdle() const noexcept {
        return idle_.load(std::memory_order_relaxed) == live_.load(std::memory_order_relaxed);
    }
    struct Flight {
        TaskPtr task;
        bool started = false; // reported started
    };
    // The task in flight at `worker` with id `id`, now marked started; null
    // if it has none such or it was marked before. Link thread.
    TaskPtr started(std::size_t worker, codec::TaskId id) QZ_EXCLUDES(mutex_);
    // Takes the task `id` out of flight at `worker` (a null task if it has
    // none such).
    Flight finish(std::size_t worker, codec::TaskId id) QZ_EXCLUDES(mutex_);

    struct Loss {
        std::vector<TaskPtr> failed;  // started there, or pinned there
        std::vector<TaskPtr> refused; // never started, but the queue has closed
                                      // (the others are queued again)
    };
    // `startedThere` adds ids known to have started there though not
    // reported.
    Loss lose(std::size_t worker, const std::vector<codec::TaskId>& startedThere)
        QZ_EXCLUDES(mutex_);
    std::size_t liveWorkers() const noexcept { return live_.load(std::memory_order_relaxed); }

    bool withdraw(const executor::WorkerTask& task) override QZ_EXCLUDES(mutex_);
    // PinnedQueue::close, and stop requests for the tasks in flight.
    std::vector<TaskPtr> close() QZ_EXCLUDES(mutex_);

    // Wakes the link thread: new work, a cancel, a close. Any thread.
    void news() noexcept { waker_.wake(); }
    Waker& waker() noexcept { return waker_; }

private:
    bool anyInFlight() const QZ_REQUIRES(mutex_);
    void fillWindow(std::size_t worker, std::size_t window, std::vector<Send>& sends)
        QZ_REQUIRES(mutex_);

    Waker waker_;
    std::vector<std::deque<Flight>> flight_ QZ_GUARDED_BY(mutex_); // per worker, oldest first
    std::vector<bool> lost_ QZ_GUARDED_BY(mutex_);
    std::vector<Stop> stops_ QZ_GUARDED_BY(mutex_);
    // Counts of the live workers, and of those with nothing in flight:
    // written under the lock, read without.
    std::atomic<std::size_t> live_;
    std::atomic<std::size_t> idle_;
};

} // namespace mpipool
