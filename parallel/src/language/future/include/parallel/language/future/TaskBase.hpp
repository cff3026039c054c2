#pragma once

#include <parallel/language/future/Export.hpp>
#include <parallel/language/future/FutureState.hpp>
#include <parallel/language/future/MultiEventPromise.hpp>
#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>
#include <parallel/language/future/TimeTypes.hpp>

#include <boost/thread/future.hpp>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

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
// continuations). The task owns both promises; destroying it before they are
// ready breaks them, which runs the callbacks still attached.
//
// Threads: the executor's threads call the notifications; any thread calls
// the public operations. One non-recursive mutex per task guards the state,
// the cancelled flag, both times and the running promise and future. The
// running promise is made ready with that mutex held, so a callback attached
// with afterRunningThen(boost::launch::sync, ...) must not call back into the
// same task. Finished callbacks and the task-finished listeners run without
// the mutex.
class QZ_FUTURE_API TaskBase : public std::enable_shared_from_this<TaskBase> {
public:
    TaskBase();
    virtual ~TaskBase() = 0;
    TaskBase(const TaskBase&) = delete;
    TaskBase& operator=(const TaskBase&) = delete;

    // Stops the work (doCancel) and marks the task cancelled, unless it has
    // finished. Errors of doCancel are logged, never thrown. Any thread.
    void cancel() noexcept;

    // Waits until the task is at least in state `target` or `deadline`
    // passes; true when the state was reached. A task that has had no
    // notification (Unavailable) answers true at once. Waiting for Queued or
    // Pending waits for the finished future. Does not look at user
    // interrupts: interruptible callers pass short deadlines and loop.
    // Throws WaitOnUnavailableFuture / UnknownWaitErrors when waiting on the
    // finished future fails. Any thread.
    bool wait(FutureState target, const SteadyTimePoint& deadline);

    // Runs `callback` once the task runs (or the running promise is broken).
    // With boost::launch::sync: at once when already running, otherwise in
    // the notifying thread with the task mutex held. The callback's
    // exceptions reach nobody. Any thread.
    void afterRunningThen(boost::launch policy, std::function<void()> callback);
    // Runs `callback` once the task has finished or was cancelled (or the
    // finished promise is broken), without the task mutex. Any thread.
    void afterFinishThen(boost::launch policy, std::function<void()> callback);

    FutureState getState() const noexcept;
    // 0.0 when not set. Any thread.
    WallClockTimePoint getStartTime() const;
    WallClockTimePoint getFinishTime() const;
    // 0 before start; growing while running; finish - start afterwards.
    Seconds getRunningDuration() const;

    // The text the work printed; from the executor, no lock.
    std::u16string getDiary();
    // ExecutionCancelled (as a value) for a cancelled task; the executor's
    // outputs or error once finished; an empty optional before.
    OutputsOrError getOutputsOrError();
    // Ready once the task has finished or was cancelled. Never replaced.
    boost::shared_future<void> getWaitableFuture() const;

protected:
    // Notifications, called by the executor. Any thread.
    void doNotifyPending();
    void doNotifyQueued();
    // Throws boost::promise_already_satisfied for a second Running without a
    // re-queue between (state and start time are updated first).
    void doNotifyRunning();
    void doNotifyFinished();
    void doNotifyCancelled();

private:
    virtual void doCancel() = 0;
    virtual OutputsOrError doGetOutputsOrError() = 0;
    virtual void doAfterFinishThen(boost::launch policy, std::function<void()> callback);
    virtual std::u16string doGetDiary() = 0;

    // Called with mutex_ held.
    void setState(FutureState state);
    void setStartTime();
    void setFinishTime();

    WallClockTimePoint finishTime_{};
    WallClockTimePoint startTime_{};
    FutureState state_ = FutureState::Unavailable;
    bool cancelled_ = false;
    mutable std::mutex mutex_;
    boost::promise<void> runningPromise_;
    boost::shared_future<void> runningFuture_;
    MultiEventPromise finishedPromise_;
    boost::shared_future<void> finishedFuture_; // never replaced after construction
};

} // namespace parallel::language::future
