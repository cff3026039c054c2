#include "WorkList.hpp"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace mpipool {

namespace {

bool eraseTask(std::deque<WorkList::TaskPtr>& queue, const ClusterTask& task) {
    return std::erase_if(
               queue, [&](const WorkList::TaskPtr& queued) { return queued.get() == &task; }) > 0;
}

} // namespace

WorkList::WorkList(std::size_t numWorkers) : pinned_(numWorkers), inHand_(numWorkers) {}

bool WorkList::push(TaskPtr task) {
    {
        const std::lock_guard lock(mutex_);
        if (closed_) {
            return false;
        }
        waiting_.push_back(std::move(task));
    }
    news_.notify_one();
    return true;
}

bool WorkList::pushPinned(std::vector<TaskPtr> tasks) {
    if (tasks.size() != pinned_.size()) {
        throw std::invalid_argument("One pinned task per worker is required.");
    }
    {
        const std::lock_guard lock(mutex_);
        if (closed_) {
            return false;
        }
        for (std::size_t i = 0; i < tasks.size(); ++i) {
            pinned_[i].push_back(std::move(tasks[i]));
        }
    }
    news_.notify_one();
    return true;
}

bool WorkList::cancel(const ClusterTask& task) {
    {
        const std::lock_guard lock(mutex_);
        const auto worker = task.getPinnedWorker();
        if (eraseTask(worker && *worker < pinned_.size() ? pinned_[*worker] : waiting_, task)) {
            return true;
        }
        const auto holder =
            std::ranges::find_if(inHand_, [&](const TaskPtr& held) { return held.get() == &task; });
        if (holder == inHand_.end()) {
            return false; // finished already
        }
        stops_.push_back({static_cast<std::size_t>(holder - inHand_.begin()), task.getId()});
    }
    news_.notify_one();
    return false;
}

std::vector<WorkList::TaskPtr> WorkList::close() {
    std::vector<TaskPtr> abandoned;
    {
        const std::lock_guard lock(mutex_);
        closed_ = true;
        abandoned.assign(std::make_move_iterator(waiting_.begin()),
                         std::make_move_iterator(waiting_.end()));
        waiting_.clear();
        for (auto& queue : pinned_) {
            abandoned.insert(abandoned.end(), std::make_move_iterator(queue.begin()),
                             std::make_move_iterator(queue.end()));
            queue.clear();
        }
        for (std::size_t worker = 0; worker < inHand_.size(); ++worker) {
            if (inHand_[worker]) {
                stops_.push_back({worker, inHand_[worker]->getId()});
            }
        }
    }
    news_.notify_one();
    return abandoned;
}

WorkList::TaskPtr WorkList::nextFor(std::size_t worker) {
    std::deque<TaskPtr>& from = pinned_[worker].empty() ? waiting_ : pinned_[worker];
    if (from.empty()) {
        return nullptr;
    }
    TaskPtr task = std::move(from.front());
    from.pop_front();
    return task;
}

WorkList::Orders WorkList::takeOrders() {
    Orders orders;
    const std::lock_guard lock(mutex_);
    for (std::size_t worker = 0; worker < inHand_.size(); ++worker) {
        if (!inHand_[worker]) {
            if (TaskPtr task = nextFor(worker)) {
                inHand_[worker] = task;
                orders.sends.push_back({worker, std::move(task)});
            }
        }
    }
    orders.stops.swap(stops_);
    orders.drained = closed_ && !anyInHand();
    return orders;
}

WorkList::TaskPtr WorkList::inHand(std::size_t worker, codec::TaskId id) const {
    const std::lock_guard lock(mutex_);
    if (worker < inHand_.size() && inHand_[worker] && inHand_[worker]->getId() == id) {
        return inHand_[worker];
    }
    return nullptr;
}

WorkList::TaskPtr WorkList::finish(std::size_t worker, codec::TaskId id) {
    const std::lock_guard lock(mutex_);
    if (worker < inHand_.size() && inHand_[worker] && inHand_[worker]->getId() == id) {
        return std::exchange(inHand_[worker], nullptr);
    }
    return nullptr;
}

bool WorkList::anyInHand() const {
    return std::ranges::any_of(inHand_, [](const TaskPtr& task) { return task != nullptr; });
}

bool WorkList::hasOrders() const {
    if (!stops_.empty() || (closed_ && !anyInHand())) {
        return true;
    }
    for (std::size_t worker = 0; worker < inHand_.size(); ++worker) {
        if (!inHand_[worker] && (!pinned_[worker].empty() || !waiting_.empty())) {
            return true;
        }
    }
    return false;
}

void WorkList::waitForOrders(PollPacer& pacer) {
    std::unique_lock lock(mutex_);
    if (anyInHand()) {
        pacer.pause(lock, news_, [this] { return hasOrders(); });
    } else {
        news_.wait(lock, [this] { return hasOrders(); });
    }
}

} // namespace mpipool
