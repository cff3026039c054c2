#pragma once

// The pool's work list: tasks waiting for a worker, oldest first, and the
// tasks that workers are running. Closing it hands back the waiting tasks and
// asks the running ones to stop.
//
// Ownership: shared by the pool and its workers; tasks reach it weakly.
// Threads: every member is safe from any thread; one mutex guards all state.

#include "PoolTask.hpp"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace localpool {

class TaskQueue {
public:
    using TaskPtr = std::shared_ptr<PoolTask>;

    // Appends `task` and wakes a worker; false (and nothing queued) once closed.
    bool push(TaskPtr task);
    // Blocks until there is a task, and moves the oldest to the running
    // tasks; null once the queue is closed and empty. Worker thread.
    TaskPtr takeNext();
    // Forgets a task taken with takeNext. Worker thread.
    void markDone(const PoolTask& task);
    // Takes `task` out of the waiting tasks; false when it was not waiting.
    bool remove(const PoolTask& task);
    // Refuses further tasks, asks the running ones to stop, wakes every
    // worker and returns the tasks that were still waiting.
    std::deque<TaskPtr> close();

private:
    std::mutex mutex_;
    std::condition_variable wakeWorker_;
    std::deque<TaskPtr> waiting_;
    std::vector<TaskPtr> running_;
    bool closed_ = false;
};

} // namespace localpool
