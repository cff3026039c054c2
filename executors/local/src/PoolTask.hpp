#pragma once

// One evaluation of the local pool: a function, its number of outputs and
// the worker's own copies of the inputs, and what running it produced.
//
// Ownership: held through std::shared_ptr by the queue while waiting, by the
// worker while running, and by its FevalFuture for as long as the future
// lives. It reaches the queue only weakly, so it may outlive the pool.

#include <parallel/language/future/TaskBase.hpp>

#include <matrix/dvArray.hpp>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace localpool {

using parallel::language::future::DvArrayVector;
using parallel::language::future::OutputsOrError;

class TaskQueue;

class PoolTask final : public parallel::language::future::TaskBase {
public:
    // Takes shared copies of `inputs` (null entries stay null). A task with
    // a `pinnedWorker` is run by that worker only; without, by any worker.
    // More than kcos::kMaxNumOutputs outputs raise the host's maxlhs error.
    PoolTask(boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
             const DvArrayVector& inputs, std::weak_ptr<TaskQueue> queue,
             std::optional<std::size_t> pinnedWorker = std::nullopt);

    std::optional<std::size_t> getPinnedWorker() const noexcept { return pinnedWorker_; }

    // Progress notifications. The submitting thread or the worker.
    void markPending() { doNotifyPending(); }
    void markQueued() { doNotifyQueued(); }
    void markRunning() { doNotifyRunning(); }
    void markFinished() { doNotifyFinished(); }

    // Calls the function and keeps its outputs or error and what it printed.
    // Releases the inputs afterwards. Worker thread, once.
    void run() noexcept;

    // Asks the function to stop; it sees this through stopRequested(). Any thread.
    void requestStop() noexcept { stop_ = true; }
    bool isStopRequested() const noexcept { return stop_; }

private:
    // Takes the task out of the queue if it is still there, and asks it to
    // stop in case a worker has it already.
    void doCancel() override;
    OutputsOrError doGetOutputsOrError() override;
    std::u16string doGetDiary() override;

    // Set at construction, then read and released by the worker only.
    boost::intrusive_ptr<dvArray> function_;
    unsigned int numOutputs_;
    DvArrayVector inputs_;

    std::weak_ptr<TaskQueue> queue_;
    const std::optional<std::size_t> pinnedWorker_;
    std::atomic<bool> stop_{false};

    mutable std::mutex resultMutex_; // guards result_ and diary_
    OutputsOrError result_{std::optional<DvArrayVector>()};
    std::u16string diary_;
};

} // namespace localpool
