#include "TaskQueue.hpp"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace localpool {

namespace {

bool eraseTask(std::deque<TaskQueue::TaskPtr>& queue, const PoolTask& task) {
    return std::erase_if(
               queue, [&](const TaskQueue::TaskPtr& queued) { return queued.get() == &task; }) > 0;
}

} // namespace

TaskQueue::TaskQueue(std::size_t numWorkers) : pinned_(numWorkers) {}

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

bool TaskQueue::pushPinned(std::vector<TaskPtr> tasks) {
    if (tasks.size() != pinned_.size()) {
        throw std::invalid_argument("One pinned task per worker is required.");
    }
    {
        std::lock_guard lock(mutex_);
        if (closed_) {
            return false;
        }
        for (std::size_t i = 0; i < tasks.size(); ++i) {
            pinned_[i].push_back(std::move(tasks[i]));
        }
    }
    // One condition for all workers: only waking them all reaches the ones
    // that the tasks are pinned to.
    wakeWorker_.notify_all();
    return true;
}

TaskQueue::TaskPtr TaskQueue::takeNext(std::size_t worker) {
    std::deque<TaskPtr>& mine = pinned_.at(worker);
    std::unique_lock lock(mutex_);
    wakeWorker_.wait(lock, [&] { return closed_ || !mine.empty() || !waiting_.empty(); });
    std::deque<TaskPtr>& from = mine.empty() ? waiting_ : mine;
    if (from.empty()) {
        return nullptr;
    }
    TaskPtr task = std::move(from.front());
    from.pop_front();
    running_.push_back(task);
    return task;
}

void TaskQueue::markDone(const PoolTask& task) {
    std::lock_guard lock(mutex_);
    std::erase_if(running_, [&](const TaskPtr& running) { return running.get() == &task; });
}

bool TaskQueue::remove(const PoolTask& task) {
    const auto worker = task.getPinnedWorker();
    std::lock_guard lock(mutex_);
    if (worker && *worker < pinned_.size()) {
        return eraseTask(pinned_[*worker], task);
    }
    return eraseTask(waiting_, task);
}

std::vector<TaskQueue::TaskPtr> TaskQueue::close() {
    std::vector<TaskPtr> abandoned;
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        abandoned.assign(std::make_move_iterator(waiting_.begin()),
                         std::make_move_iterator(waiting_.end()));
        waiting_.clear();
        for (std::deque<TaskPtr>& queue : pinned_) {
            abandoned.insert(abandoned.end(), std::make_move_iterator(queue.begin()),
                             std::make_move_iterator(queue.end()));
            queue.clear();
        }
        for (const TaskPtr& task : running_) {
            task->requestStop();
        }
    }
    wakeWorker_.notify_all();
    return abandoned;
}

std::vector<TaskQueue::TaskPtr> TaskQueue::running() const {
    std::lock_guard lock(mutex_);
    return running_;
}

} // namespace localpool
