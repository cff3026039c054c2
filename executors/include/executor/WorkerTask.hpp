#pragma once

// The task of an executor whose workers take their work from a PinnedQueue:
// what every such task keeps, whoever runs it. A subclass adds what to run.
//
// States (TaskBase), driven through the mark... members: Pending and Queued
// at submission (see Submission.hpp), Running and Finished by whoever runs
// it. A cancel sets the stop flag and takes the task out of its queue; a task
// taken out is notified Finished at once, since no worker ever will.
//
// Ownership: held through std::shared_ptr by its queue while it waits, by
// its worker while it runs, and by its future. It reaches its queue only
// weakly, so it may outlive its executor.
//
// Threads: any thread marks, cancels and reads; the result and the diary are
// guarded by the task's own mutex.

#include <executor/NotifySafely.hpp>

#include <parallel/language/future/TaskBase.hpp>
#include <parallel/language/future/TimelineRecorder.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <atomic>
#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>

namespace executor {

using parallel::language::future::DvArrayVector;
using parallel::language::future::OutputsOrError;

class WorkerTask;

// Where tasks wait for a worker (a PinnedQueue).
class WaitingTasks {
public:
    // Takes `task` out if it is still waiting: true when no worker has it, nor
    // ever will. Any thread.
    virtual bool withdraw(const WorkerTask& task) = 0;

protected:
    ~WaitingTasks() = default;
};

class WorkerTask : public parallel::language::future::TaskBase {
public:
    // A task with a `pinnedWorker` is run by that worker only; without, by any.
    explicit WorkerTask(std::weak_ptr<WaitingTasks> queue,
                        std::optional<std::size_t> pinnedWorker = std::nullopt);

    std::optional<std::size_t> getPinnedWorker() const noexcept {
        return pinnedWorker_ == kAnyWorker ? std::nullopt : std::optional(pinnedWorker_);
    }

    // Progress notifications. The submitting thread, then the executor's.
    void markPending() { doNotifyPending(); }
    void markQueued() { doNotifyQueued(); }
    void markPendingAndQueued() { doNotifyPendingAndQueued(); } // no other thread has the task
    void markRunning() { doNotifyRunning(); }
    void markFinished() { doNotifyFinished(); }

    // Asks the work to stop; a function sees it through stopRequested() when
    // it runs under stopFlag() (see evaluateCapturing). Any thread.
    void requestStop() noexcept { stop_ = true; }
    bool isStopRequested() const noexcept { return stop_; }
    // Whether a cancel has begun: set before its stop request (so a function
    // that returns because of it finds it set), it may not have made the task
    // Finished yet. Any thread.
    bool isCancelling() const noexcept { return cancelling_; }
    const std::atomic<bool>& stopFlag() const noexcept { return stop_; }

    // Keeps what running the task gave; an error is also marked on the
    // timeline. Before markFinished, any thread.
    void setResult(OutputsOrError result, std::u16string diary) QZ_EXCLUDES(resultMutex_);

private:
    // Asks the work to stop, and takes the task out of its queue if it waits.
    void doCancel() final;
    OutputsOrError doGetOutputsOrError() final QZ_EXCLUDES(resultMutex_);
    std::u16string doGetDiary() final QZ_EXCLUDES(resultMutex_);

    const std::weak_ptr<WaitingTasks> queue_;
    // The pinned worker, or kAnyWorker (no worker has that number).
    static constexpr std::size_t kAnyWorker = std::numeric_limits<std::size_t>::max();
    const std::size_t pinnedWorker_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> cancelling_{false};

    foundation::core::sync::Mutex resultMutex_;
    OutputsOrError result_ QZ_GUARDED_BY(resultMutex_){std::optional<DvArrayVector>()};
    // Null while the work printed nothing, as most does.
    std::unique_ptr<std::u16string> diary_ QZ_GUARDED_BY(resultMutex_);
};

// What one evaluation gave: its outputs or its error, and what it printed.
struct Evaluated {
    OutputsOrError result;
    std::u16string diary;
};

// Calls `evaluate` on this thread, with stopRequested() reading `stop` and
// what it prints collected as the diary. An exception of `evaluate` becomes
// the error of the result; none leaves. The thread that runs the work.
Evaluated evaluateCapturing(const std::atomic<bool>& stop,
                            const std::function<DvArrayVector()>& evaluate) noexcept;

// Notifies Finished for `task`, whose run has ended. A cancel under way (its
// stop request may be what ended the run) is completed first: the run's
// outputs are never seen and then replaced by the cancel's error. The thread
// that finishes the task.
inline void finishRun(const char* executorName, WorkerTask& task) noexcept {
    if (task.isCancelling()) {
        task.cancel(); // nothing once the cancel has made it Finished
    }
    notifySafely(executorName, "Finished", [&] { task.markFinished(); });
}

// Runs `task` as a worker thread does: Running, then `task.run()`, then
// Finished. A task asked to stop before it started is cancelled instead of
// run. A failing notification is reported under `executorName` (see
// notifySafely) and the worker carries on. An unnamed thread's timeline
// lane becomes "<executorName> worker N" (see
// TimelineRecorder::nameThisThreadByDefault). `Task` derives from WorkerTask
// and has `void run()`. The executor's worker thread.
template <class Task>
void runAsWorker(const char* executorName, Task& task) noexcept {
    parallel::language::future::TimelineRecorder::nameThisThreadByDefault(executorName);
    notifySafely(executorName, "Running", [&] { task.markRunning(); });
    if (task.isStopRequested()) {
        task.cancel();
    } else {
        task.run();
    }
    finishRun(executorName, task);
}

} // namespace executor
