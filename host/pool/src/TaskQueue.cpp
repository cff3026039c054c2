#include "TaskQueue.hpp"

#include <algorithm>

namespace localpool {

bool TaskQueue::push(TaskPtr task) {
    {
        std::lock_guard lock(mutex_);
        if (closed_) {
            return false;
        }
        waiting_.push_back(std::move(task));
    }
    wakeWorker_.notify_one();
    return true;
}

TaskQueue::TaskPtr TaskQueue::takeNext() {
    std::unique_lock lock(mutex_);
    wakeWorker_.wait(lock, [this] { return closed_ || !waiting_.empty(); });
    if (waiting_.empty()) {
        return nullptr;
    }
    TaskPtr task = std::move(waiting_.front());
    waiting_.pop_front();
    running_.push_back(task);
    return task;
}

void TaskQueue::markDone(const PoolTask& task) {
    std::lock_guard lock(mutex_);
    std::erase_if(running_, [&](const TaskPtr& running) { return running.get() == &task; });
}

bool TaskQueue::remove(const PoolTask& task) {
    std::lock_guard lock(mutex_);
    return std::erase_if(waiting_, [&](const TaskPtr& waiting) { return waiting.get() == &task; }) >
           0;
}

std::deque<TaskQueue::TaskPtr> TaskQueue::close() {
    std::deque<TaskPtr> abandoned;
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        abandoned.swap(waiting_);
        for (const TaskPtr& task : running_) {
            task->requestStop();
        }
    }
    wakeWorker_.notify_all();
    return abandoned;
}

} // namespace localpool
