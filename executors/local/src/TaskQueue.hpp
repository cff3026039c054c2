#pragma once

// The pool's work list: tasks waiting for any worker, oldest first; for each
// worker, the tasks pinned to it, oldest first; and the tasks that workers
// are running. A worker takes its own pinned tasks before shared ones.
// Closing it hands back every waiting task and asks the running ones to stop.
//
// Ownership: shared by the pool and its workers; tasks reach it weakly.
// Threads: every member is safe from any thread; one mutex guards all state.

#include "PoolTask.hpp"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace localpool {

class TaskQueue {
public:
    using TaskPtr = std::shared_ptr<PoolTask>;

    // One pinned queue for each of `numWorkers` workers, numbered from 0.
    explicit TaskQueue(std::size_t numWorkers);

    std::size_t getNumWorkers() const noexcept { return pinned_.size(); }

    // Appends `task` for any worker and wakes one; false (and nothing queued)
    // once closed.
    bool push(TaskPtr task);
    // Appends tasks[i] to the pinned queue of worker i (tasks.size() is the
    // number of workers; each task's pinned worker matches its index) and
    // wakes the workers. All or nothing: false (and nothing queued) once closed.
    bool pushPinned(std::vector<TaskPtr> tasks);
    // Blocks until there is a task for `worker`, and moves it to the running
    // tasks: its oldest pinned task, else the oldest shared one. Null once the
    // queue is closed and empty. Worker thread.
    TaskPtr takeNext(std::size_t worker);
    // Forgets a task taken with takeNext. Worker thread.
    void markDone(const PoolTask& task);
    // Takes `task` out of the queue it waits in; false when it was not waiting.
    bool remove(const PoolTask& task);
    // Refuses further tasks, asks the running ones to stop, wakes every
    // worker and returns the tasks that were still waiting, shared and pinned.
    std::vector<TaskPtr> close();
    // The tasks that workers are running now.
    std::vector<TaskPtr> running() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable wakeWorker_;
    std::deque<TaskPtr> waiting_;
    std::vector<std::deque<TaskPtr>> pinned_; // fixed size, one per worker
    std::vector<TaskPtr> running_;
    bool closed_ = false;
};

} // namespace localpool
