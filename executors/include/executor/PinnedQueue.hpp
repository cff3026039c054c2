#pragma once

// The tasks of an executor on their way to its workers: the tasks waiting for
// any worker (oldest first), for each worker the tasks pinned to it (oldest
// first), and the one task each worker has in hand. A worker takes its own
// pinned tasks before shared ones.
//
// A task is Waiting (shared or pinned), then InHand once its worker takes it,
// until the worker releases it. Cancelling a waiting task takes it out
// (withdraw); cancelling one in hand, or closing the queue, asks its worker
// to stop it (the task's stop flag, and stopInHand for an executor that must
// tell a worker elsewhere). A closed queue refuses work and hands back every
// waiting task.
//
// Ownership: shared by the executor and its workers; tasks reach it weakly.
// Threads: every public member is safe from any thread; one mutex guards all
// state, and one condition variable (`news_`) wakes whoever waits for work.
// A worker that finds no work may first look again without the mutex for a
// short while (`looking_`, one worker at a time, watching `newsCount_`); a
// push leaves the task it can take to it instead of waking a sleeper.

#include <executor/ExecutorErrors.hpp>
#include <executor/WorkerTask.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace executor {

// `Task` derives from WorkerTask.
template <class Task>
class PinnedQueue : public WaitingTasks {
public:
    using TaskPtr = std::shared_ptr<Task>;
    using Mutex = foundation::core::sync::Mutex;
    using LockGuard = foundation::core::sync::LockGuard;
    using UniqueLock = foundation::core::sync::UniqueLock;

    // Workers are numbered 0 to numWorkers - 1.
    explicit PinnedQueue(std::size_t numWorkers)
        : numWorkers_(numWorkers), inHand_(numWorkers), pinned_(numWorkers) {}
    virtual ~PinnedQueue() = default;
    PinnedQueue(const PinnedQueue&) = delete;
    PinnedQueue& operator=(const PinnedQueue&) = delete;

    std::size_t getNumWorkers() const noexcept { return numWorkers_; }

    // Appends `task` for any worker; false (nothing queued) once closed.
    // Wakes a sleeping worker unless the one looking for work takes it.
    bool push(TaskPtr task) QZ_EXCLUDES(mutex_) {
        bool wake = false;
        {
            const LockGuard lock(mutex_);
            if (closed_) {
                return false;
            }
            waiting_.push_back(std::move(task));
            wake = waiting_.size() > (looking_ ? 1u : 0u);
            tellLooker();
        }
        if (wake) {
            news_.notify_one();
        }
        return true;
    }

    // Appends tasks[i] for worker i, whose pinned worker it is. All or
    // nothing: false once closed; KORVEX:executor:PinnedTaskCount unless
    // there is one task per worker.
    bool pushPinned(std::vector<TaskPtr> tasks) QZ_EXCLUDES(mutex_) {
        if (tasks.size() != numWorkers_) {
            throw errors::PinnedTaskCount(std::uint64_t{tasks.size()}, std::uint64_t{numWorkers_});
        }
        {
            const LockGuard lock(mutex_);
            if (closed_) {
                return false;
            }
            for (std::size_t i = 0; i < tasks.size(); ++i) {
                pinned_[i].push_back(std::move(tasks[i]));
            }
            tellLooker();
        }
        // One condition for every waiter: only waking them all reaches the
        // workers that the tasks are pinned to.
        news_.notify_all();
        return true;
    }

    // Blocks until there is a task for `worker` and puts it in the worker's
    // hand; null once the queue is closed. Finding none, one worker at a
    // time first looks again for a short while (kLookFor) without the lock
    // before it sleeps: work pushed meanwhile is taken without a sleep and a
    // wake-up. Worker thread.
    TaskPtr takeNext(std::size_t worker) QZ_EXCLUDES(mutex_) {
        UniqueLock lock(mutex_);
        bool looked = false;
        while (!closed_ && !hasWorkFor(worker)) {
            if (!looked && !looking_) {
                looked = looking_ = true;
                const std::uint64_t seen = newsCount_.load(std::memory_order_relaxed);
                lock.unlock();
                lookForNews(seen);
                lock.lock();
                looking_ = false;
                continue;
            }
            news_.wait(lock.native());
        }
        return closed_ ? nullptr : takeFor(worker);
    }

    // The task in the hand of `worker`, which is free again. Worker thread.
    TaskPtr release(std::size_t worker) QZ_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return std::exchange(inHand_.at(worker), nullptr);
    }

    // release(worker), then takeNext(worker), under one lock when there is
    // work already: the worker's loop once it is done with the task in its
    // hand. The queue's reference to that task is dropped without the lock,
    // before any wait. Worker thread.
    TaskPtr releaseAndTakeNext(std::size_t worker) QZ_EXCLUDES(mutex_) {
        {
            TaskPtr done;
            const LockGuard lock(mutex_);
            done = std::exchange(inHand_.at(worker), nullptr);
            if (closed_ || hasWorkFor(worker)) {
                return closed_ ? nullptr : takeFor(worker);
            }
        }
        return takeNext(worker);
    }

    bool withdraw(const WorkerTask& task) override QZ_EXCLUDES(mutex_) {
        {
            const LockGuard lock(mutex_);
            const auto worker = task.getPinnedWorker();
            auto& queue = worker && *worker < numWorkers_ ? pinned_[*worker] : waiting_;
            if (std::erase_if(queue,
                              [&](const TaskPtr& queued) { return queued.get() == &task; })) {
                return true;
            }
            const auto holder = std::ranges::find_if(
                inHand_, [&](const TaskPtr& held) { return held.get() == &task; });
            if (holder == inHand_.end()) {
                return false; // finished already, or not queued yet
            }
            stopInHand(static_cast<std::size_t>(holder - inHand_.begin()), **holder);
        }
        news_.notify_all();
        return false;
    }

    // Refuses further work, asks the workers to stop the tasks in their hands,
    // wakes every waiter and hands back the waiting tasks, shared and pinned,
    // for the caller to cancel.
    std::vector<TaskPtr> close() QZ_EXCLUDES(mutex_) {
        std::vector<TaskPtr> abandoned;
        {
            const LockGuard lock(mutex_);
            closed_ = true;
            tellLooker();
            abandoned.assign(std::make_move_iterator(waiting_.begin()),
                             std::make_move_iterator(waiting_.end()));
            waiting_.clear();
            for (auto& queue : pinned_) {
                abandoned.insert(abandoned.end(), std::make_move_iterator(queue.begin()),
                                 std::make_move_iterator(queue.end()));
                queue.clear();
            }
            for (std::size_t worker = 0; worker < numWorkers_; ++worker) {
                if (inHand_[worker]) {
                    inHand_[worker]->requestStop();
                    stopInHand(worker, *inHand_[worker]);
                }
            }
        }
        news_.notify_all();
        return abandoned;
    }

    // The tasks in the workers' hands now.
    std::vector<TaskPtr> tasksInHand() const QZ_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        std::vector<TaskPtr> tasks;
        std::ranges::copy_if(inHand_, std::back_inserter(tasks),
                             [](const TaskPtr& task) { return task != nullptr; });
        return tasks;
    }

private:
    // How long a worker that finds no work looks again before it sleeps.
    static constexpr std::chrono::microseconds kLookFor{50};

    // Tells the worker looking for work that something changed.
    void tellLooker() QZ_REQUIRES(mutex_) { newsCount_.fetch_add(1, std::memory_order_release); }

    // Returns once something changed since `seen`, or after kLookFor. Gives
    // its processor to other threads as it goes, so that a busy machine
    // loses little to the looking. Without the mutex.
    void lookForNews(std::uint64_t seen) const noexcept {
        const auto until = std::chrono::steady_clock::now() + kLookFor;
        while (newsCount_.load(std::memory_order_acquire) == seen) {
            if (std::chrono::steady_clock::now() > until) {
                return;
            }
            std::this_thread::yield();
        }
    }

protected:
    // `worker` is to stop `task`, which it has in hand (a cancel or a close).
    // Here nothing more than the task's stop flag, which is set already.
    virtual void stopInHand(std::size_t /*worker*/, const Task& /*task*/) QZ_REQUIRES(mutex_) {}

    bool hasWorkFor(std::size_t worker) const QZ_REQUIRES(mutex_) {
        return !inHand_.at(worker) && (!pinned_[worker].empty() || !waiting_.empty());
    }

    // Takes the next task for `worker` (its own pinned ones first) out of the
    // queue; null when none waits. An executor whose workers hold several
    // tasks keeps them itself.
    TaskPtr popFor(std::size_t worker) QZ_REQUIRES(mutex_) {
        std::deque<TaskPtr>& from = pinned_.at(worker).empty() ? waiting_ : pinned_[worker];
        if (from.empty()) {
            return nullptr;
        }
        TaskPtr task = std::move(from.front());
        from.pop_front();
        return task;
    }

    // Puts the next task for `worker` in its hand; null when none waits.
    TaskPtr takeFor(std::size_t worker) QZ_REQUIRES(mutex_) {
        inHand_.at(worker) = popFor(worker);
        return inHand_[worker];
    }

    // Takes the tasks pinned to `worker` out of the queue (a worker that is
    // gone: the executor fails them).
    std::deque<TaskPtr> takePinnedOf(std::size_t worker) QZ_REQUIRES(mutex_) {
        return std::exchange(pinned_.at(worker), {});
    }

    bool anyInHand() const QZ_REQUIRES(mutex_) {
        return std::ranges::any_of(inHand_, [](const TaskPtr& task) { return task != nullptr; });
    }

    const std::size_t numWorkers_;
    mutable Mutex mutex_;
    std::condition_variable news_;
    std::vector<TaskPtr> inHand_ QZ_GUARDED_BY(mutex_); // one per worker; null when free
    bool closed_ QZ_GUARDED_BY(mutex_) = false;

private:
    std::deque<TaskPtr> waiting_ QZ_GUARDED_BY(mutex_);
    bool looking_ QZ_GUARDED_BY(mutex_) = false; // a worker looks for work without the lock
    std::atomic<std::uint64_t> newsCount_{0};    // changed by every push, and the close
    std::vector<std::deque<TaskPtr>> pinned_ QZ_GUARDED_BY(mutex_); // one per worker
};

} // namespace executor
