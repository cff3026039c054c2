#include "WorkList.hpp"

#include <utility>

namespace mpipool {

void WorkList::stopInHand(std::size_t worker, const ClusterTask& task) {
    stops_.push_back({worker, task.getId()});
}

WorkList::Orders WorkList::takeOrders() {
    Orders orders;
    const LockGuard lock(mutex_);
    for (std::size_t worker = 0; worker < numWorkers_; ++worker) {
        if (hasWorkFor(worker)) {
            orders.sends.push_back({worker, takeFor(worker)});
        }
    }
    orders.stops.swap(stops_);
    orders.drained = closed_ && !anyInHand();
    return orders;
}

bool WorkList::holds(std::size_t worker, codec::TaskId id) const {
    return worker < numWorkers_ && inHand_[worker] && inHand_[worker]->getId() == id;
}

WorkList::TaskPtr WorkList::inHand(std::size_t worker, codec::TaskId id) const {
    const LockGuard lock(mutex_);
    return holds(worker, id) ? inHand_[worker] : nullptr;
}

WorkList::TaskPtr WorkList::finish(std::size_t worker, codec::TaskId id) {
    const LockGuard lock(mutex_);
    return holds(worker, id) ? std::exchange(inHand_[worker], nullptr) : nullptr;
}

bool WorkList::hasOrders() const {
    if (!stops_.empty() || (closed_ && !anyInHand())) {
        return true;
    }
    for (std::size_t worker = 0; worker < numWorkers_; ++worker) {
        if (hasWorkFor(worker)) {
            return true;
        }
    }
    return false;
}

void WorkList::waitForOrders(PollPacer& pacer) {
    UniqueLock lock(mutex_);
    if (anyInHand()) {
        if (!hasOrders()) {
            pacer.pause(lock.native(), news_);
        }
        return;
    }
    while (!hasOrders()) {
        news_.wait(lock.native());
    }
}

} // namespace mpipool
