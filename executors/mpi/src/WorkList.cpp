#include "WorkList.hpp"

#include <algorithm>
#include <utility>

namespace mpipool {

WorkList::WorkList(std::size_t numWorkers)
    : PinnedQueue(numWorkers), flight_(numWorkers), lost_(numWorkers, false), live_(numWorkers),
      idle_(numWorkers) {}

WorkList::Orders WorkList::takeOrders(const std::vector<std::size_t>& window) {
    Orders orders;
    const LockGuard lock(mutex_);
    const bool anyLive = std::ranges::find(lost_, false) != lost_.end();
    for (std::size_t worker = 0; worker < numWorkers_; ++worker) {
        if (lost_[worker]) {
            // Work pinned there, or, with no worker left, any work.
            std::ranges::move(takePinnedOf(worker), std::back_inserter(orders.unrunnable));
            while (!anyLive && hasWorkFor(worker)) {
                orders.unrunnable.push_back(popFor(worker));
            }
            continue;
        }
        fillWindow(worker, window.at(worker), orders.sends);
    }
    orders.stops.swap(stops_);
    orders.drained = closed_ && !anyInFlight();
    return orders;
}

void WorkList::fillWindow(std::size_t worker, std::size_t window, std::vector<Send>& sends) {
    Send send{worker, {}};
    if (flight_[worker].empty() && hasWorkFor(worker)) {
        idle_.fetch_sub(1, std::memory_order_relaxed);
    }
    while (flight_[worker].size() < window && hasWorkFor(worker)) {
        TaskPtr task = popFor(worker); // in flight, not in hand: a worker holds several
        flight_[worker].push_back({task});
        send.tasks.push_back(std::move(task));
    }
    if (!send.tasks.empty()) {
        sends.push_back(std::move(send));
    }
}

std::vector<WorkList::Send> WorkList::takeSendsToIdle(const std::vector<std::size_t>& window) {
    std::vector<Send> sends;
    const LockGuard lock(mutex_);
    for (std::size_t worker = 0; worker < numWorkers_; ++worker) {
        if (!lost_[worker] && flight_[worker].empty()) {
            fillWindow(worker, window.at(worker), sends);
        }
    }
    return sends;
}

WorkList::TaskPtr WorkList::started(std::size_t worker, codec::TaskId id) {
    const LockGuard lock(mutex_);
    for (Flight& flight : flight_.at(worker)) {
        if (flight.task->getId() == id) {
            return std::exchange(flight.started, true) ? nullptr : flight.task;
        }
    }
    return nullptr;
}

WorkList::Flight WorkList::finish(std::size_t worker, codec::TaskId id) {
    const LockGuard lock(mutex_);
    auto& flights = flight_.at(worker);
    const auto found =
        std::ranges::find_if(flights, [id](const Flight& f) { return f.task->getId() == id; });
    if (found == flights.end()) {
        return {};
    }
    Flight flight = std::move(*found);
    flights.erase(found);
    if (flights.empty()) {
        idle_.fetch_add(1, std::memory_order_relaxed);
    }
    return flight;
}

WorkList::Loss WorkList::lose(std::size_t worker, const std::vector<codec::TaskId>& startedThere) {
    Loss loss;
    {
        const LockGuard lock(mutex_);
        if (!lost_.at(worker)) {
            lost_[worker] = true;
            live_.fetch_sub(1, std::memory_order_relaxed);
            if (flight_[worker].empty()) {
                idle_.fetch_sub(1, std::memory_order_relaxed);
            }
        }
        for (Flight& flight : flight_[worker]) {
            const bool started =
                flight.started ||
                std::ranges::find(startedThere, flight.task->getId()) != startedThere.end();
            const bool elsewhere = !started && !flight.task->getPinnedWorker();
            (elsewhere ? loss.refused : loss.failed).push_back(std::move(flight.task));
        }
        flight_[worker].clear();
        std::ranges::move(takePinnedOf(worker), std::back_inserter(loss.failed));
    }
    // Queued again, they keep their order among each other.
    std::erase_if(loss.refused, [this](const TaskPtr& task) { return push(task); });
    news();
    return loss;
}

bool WorkList::withdraw(const executor::WorkerTask& task) {
    if (PinnedQueue::withdraw(task)) {
        return true;
    }
    {
        const LockGuard lock(mutex_);
        for (std::size_t worker = 0; worker < numWorkers_; ++worker) {
            for (const Flight& flight : flight_[worker]) {
                if (flight.task.get() == &task) {
                    stops_.push_back({worker, flight.task->getId()});
                }
            }
        }
    }
    news();
    return false;
}

std::vector<WorkList::TaskPtr> WorkList::close() {
    std::vector<TaskPtr> abandoned = PinnedQueue::close();
    {
        const LockGuard lock(mutex_);
        for (std::size_t worker = 0; worker < numWorkers_; ++worker) {
            for (const Flight& flight : flight_[worker]) {
                flight.task->requestStop();
                stops_.push_back({worker, flight.task->getId()});
            }
        }
    }
    news();
    return abandoned;
}

bool WorkList::anyUnstarted() const {
    const LockGuard lock(mutex_);
    // A worker starts its tasks in the order they were sent: when its last
    // one has started, so have the others.
    return std::ranges::any_of(flight_, [](const std::deque<Flight>& flights) {
        return !flights.empty() && !flights.back().started;
    });
}

bool WorkList::anyWaiting() const {
    const LockGuard lock(mutex_);
    for (std::size_t worker = 0; worker < numWorkers_; ++worker) {
        if (!lost_[worker] && hasWorkFor(worker)) {
            return true;
        }
    }
    return false;
}

bool WorkList::anyInFlight() const {
    return std::ranges::any_of(flight_, [](const auto& flights) { return !flights.empty(); });
}

} // namespace mpipool
