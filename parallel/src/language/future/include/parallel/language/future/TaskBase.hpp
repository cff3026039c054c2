#pragma once

#include <parallel/language/future/Export.hpp>
#include <parallel/language/future/FutureState.hpp>
#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>
#include <parallel/language/future/TimeTypes.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <boost/container/small_vector.hpp>
#include <boost/thread/future.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace parallel::language::future {

// The execution side of a future: one unit of work as an executor sees it.
// Executors derive from it, do the work, and report progress through the
// five protected notifications; TaskBase turns them into a state, start and
// finish times, a running future and a finished future, and tells the
// process-wide task-finished listeners.
//
// States (the executor drives the order; no notification is refused):
//
//   Unavailable --Pending--> Pending --Queued--> Queued --Running--> Running
//   Running --Queued--> Queued  (re-queue: a fresh running promise is made)
//   Running --Finished--> Finished   any --Cancelled--> Finished (cancelled)
//
//   - Once cancelled, state and times are frozen: Pending, Queued and Running
//     change nothing, Finished changes nothing but still tells the listeners.
//     A later Cancelled only overwrites the finish time.
//   - The finished future becomes ready exactly once, at the first Finished
//     or Cancelled. The running future becomes ready at the first Running
//     after construction or after a re-queue.
//
// Ownership: always held through std::shared_ptr (futures, task collections,
// continuations). Callbacks attached with boost::launch::sync are kept in the
// task and run at their event; the boost promises behind the running and
// finished futures are made only when someone asks for such a future (a
// wait, getWaitableFuture, a callback of another launch policy), ready at
// once when their event has happened. Destroying the task before an event
// runs that event's callbacks (finished first, then running) and breaks its
// promise.
//
// Threads: the executor's threads call the notifications; any thread calls
// the public operations. One non-recursive mutex per task (mutex_) guards the
// state, the cancelled flag, both times, the callbacks and the promises; the
// fields say so with QZ_GUARDED_BY, and no public operation or notification
// may be called with it held (QZ_EXCLUDES). Running callbacks run in the
// notifying thread with that mutex held and must not call back into the same
// task; one attached while the task runs already runs at once in the
// attaching thread, without it. Finished callbacks and the task-finished
// listeners run without the mutex.
class QZ_FUTURE_API TaskBase : public std::enable_shared_from_this<TaskBase> {
public:
    TaskBase();
    virtual ~TaskBase() = 0;
    TaskBase(const TaskBase&) = delete;
    TaskBase& operator=(const TaskBase&) = delete;

    // Stops the work (doCancel) and marks the task cancelled, unless it has
    // finished. Errors of doCancel are logged, never thrown. Any thread.
    void cancel() noexcept QZ_EXCLUDES(mutex_);

    // Waits until the task is at least in state `target` or `deadline`
    // passes; true when the state was reached. A task that has had no
    // notification (Unavailable) answers true at once. Waiting for Queued or
    // Pending waits for the finished future. Does not look at user
    // interrupts: interruptible callers pass short deadlines and loop.
    // Throws WaitOnUnavailableFuture / UnknownWaitErrors when waiting on the
    // finished future fails. Any thread.
    bool wait(FutureState target, const SteadyTimePoint& deadline) QZ_EXCLUDES(mutex_);

    // Runs `callback` once the task runs (or is destroyed without running).
    // With boost::launch::sync: at once when already running, otherwise in
    // the notifying thread with the task mutex held. The callback's
    // exceptions reach nobody. Any thread.
    void afterRunningThen(boost::launch policy, std::function<void()> callback) QZ_EXCLUDES(mutex_);
    // Runs `callback` once the task has finished or was cancelled (or is
    // destroyed before), without the task mutex. With boost::launch::sync: at
    // once when finished already, otherwise in the notifying thread. Any
    // thread.
    void afterFinishThen(boost::launch policy, std::function<void()> callback);

    FutureState getState() const noexcept QZ_EXCLUDES(mutex_);
    // A number no other task of this process has, or had. Any thread.
    std::uint64_t getSerial() const noexcept { return serial_; }
    // 0.0 when not set. Any thread.
    WallClockTimePoint getStartTime() const QZ_EXCLUDES(mutex_);
    WallClockTimePoint getFinishTime() const QZ_EXCLUDES(mutex_);
    // 0 before start; growing while running; finish - start afterwards.
    Seconds getRunningDuration() const QZ_EXCLUDES(mutex_);

    // The text the work printed; from the executor, no lock.
    std::u16string getDiary();
    // ExecutionCancelled (as a value) for a cancelled task; the executor's
    // outputs or error once finished; an empty optional before.
    OutputsOrError getOutputsOrError() QZ_EXCLUDES(mutex_);
    // Ready once the task has finished or was cancelled. Never replaced.
    boost::shared_future<void> getWaitableFuture() const QZ_EXCLUDES(mutex_);

protected:
    // Notifications, called by the executor. Any thread.
    void doNotifyPending() QZ_EXCLUDES(mutex_);
    void doNotifyQueued() QZ_EXCLUDES(mutex_);
    // Pending then Queued in one step, for a task that no other thread can
    // reach yet (the submission of one task).
    void doNotifyPendingAndQueued() QZ_EXCLUDES(mutex_);
    // Throws boost::promise_already_satisfied for a second Running without a
    // re-queue between (state and start time are updated first).
    void doNotifyRunning() QZ_EXCLUDES(mutex_);
    void doNotifyFinished() QZ_EXCLUDES(mutex_);
    void doNotifyCancelled() QZ_EXCLUDES(mutex_);

private:
    virtual void doCancel() = 0;
    virtual OutputsOrError doGetOutputsOrError() = 0;
    virtual void doAfterFinishThen(boost::launch policy, std::function<void()> callback)
        QZ_EXCLUDES(mutex_);
    virtual std::u16string doGetDiary() = 0;

    // Room for one callback in place: most tasks get at most one per event
    // (a continuation's, or a waiting future's), and then no buffer is made.
    using Callbacks = boost::container::small_vector<std::function<void()>, 1>;
    // A boost promise made on demand, with its shared future.
    struct LazyPromise {
        LazyPromise() : future(promise.get_future().share()) {}
        boost::promise<void> promise;
        boost::shared_future<void> future;
    };

    // The running or finished future, made now if needed; ready when
    // `reached`.
    static boost::shared_future<void> futureOf(std::unique_ptr<LazyPromise>& slot, bool reached);
    // Runs each callback, dropping its exceptions.
    static void runAll(Callbacks& callbacks) noexcept;
    // The waiters, made now if needed.
    struct Waiters;
    Waiters& waiters() const QZ_REQUIRES(mutex_);

    // Called with the task mutex held.
    void setState(FutureState state) QZ_REQUIRES(mutex_);
    void setStartTime() QZ_REQUIRES(mutex_);
    void setFinishTime() QZ_REQUIRES(mutex_);
    // What waits for the first Finished or Cancelled, taken out of the task
    // at that event (nothing at a later one).
    struct FinishedWaiters {
        Callbacks callbacks;
        LazyPromise* promise = nullptr;
        // Runs the callbacks and makes the promise ready. Without the mutex.
        void release();
    };
    FinishedWaiters takeFinishedWaiters() QZ_REQUIRES(mutex_);
    // The first Finished or Cancelled: runs the finished callbacks and makes
    // the finished promise ready, if there is one. Without the task mutex.
    void reachFinished() QZ_EXCLUDES(mutex_);

    const std::uint64_t serial_;
    mutable foundation::core::sync::Mutex mutex_;
    WallClockTimePoint finishTime_ QZ_GUARDED_BY(mutex_){};
    WallClockTimePoint startTime_ QZ_GUARDED_BY(mutex_){};
    FutureState state_ QZ_GUARDED_BY(mutex_) = FutureState::Unavailable;
    bool cancelled_ QZ_GUARDED_BY(mutex_) = false;
    bool running_ QZ_GUARDED_BY(mutex_) = false;  // Running since the last (re-)queue
    bool finished_ QZ_GUARDED_BY(mutex_) = false; // the first Finished or Cancelled came
    // What waits on the task, made at the first callback or future asked for:
    // the callbacks of each event and the promises behind the futures handed
    // out (the finished one is never replaced once made; the running one is
    // dropped at a re-queue). Destroyed with the task.
    struct Waiters {
        Callbacks running;
        Callbacks finished;
        std::unique_ptr<LazyPromise> runningPromise;
        std::unique_ptr<LazyPromise> finishedPromise;
    };
    mutable std::unique_ptr<Waiters> waiters_ QZ_GUARDED_BY(mutex_);
};

} // namespace parallel::language::future
