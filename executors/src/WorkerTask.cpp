#include <executor/WorkerTask.hpp>

#include <executor/FinishOnceCancelled.hpp>
#include <executor/StopRequest.hpp>
#include <parallel/language/future/TimelineRecorder.hpp>

#include <kvm/KVM.hpp>

namespace executor {

using foundation::core::sync::LockGuard;

WorkerTask::WorkerTask(std::weak_ptr<WaitingTasks> queue, std::optional<std::size_t> pinnedWorker)
    : queue_(std::move(queue)), pinnedWorker_(pinnedWorker.value_or(kAnyWorker)) {}

void WorkerTask::setResult(OutputsOrError result, std::u16string diary) {
    if (result.hasError()) {
        parallel::language::future::TimelineRecorder::recordFailure(*this);
    }
    auto kept = diary.empty() ? nullptr : std::make_unique<std::u16string>(std::move(diary));
    const LockGuard lock(resultMutex_);
    result_ = std::move(result);
    diary_ = std::move(kept);
}

void WorkerTask::doCancel() {
    cancelling_ = true;
    if (const auto queue = queue_.lock(); queue && queue->withdraw(*this)) {
        finishOnceCancelled(*this); // no worker will
    }
    // A worker that has the task already sees the flag: the function does
    // not start, or is asked to return early. Last, so that the cancel is
    // marked as soon as possible after a function that returns at once.
    requestStop();
}

OutputsOrError WorkerTask::doGetOutputsOrError() {
    const LockGuard lock(resultMutex_);
    return result_;
}

std::u16string WorkerTask::doGetDiary() {
    const LockGuard lock(resultMutex_);
    return diary_ ? *diary_ : std::u16string();
}

Evaluated evaluateCapturing(const std::atomic<bool>& stop,
                            const std::function<DvArrayVector()>& evaluate) noexcept {
    Evaluated evaluated{OutputsOrError(std::optional<DvArrayVector>()), {}};
    const StopFlagScope stopFlag(stop);
    const kvm::DiarySink sink(evaluated.diary);
    try {
        evaluated.result = OutputsOrError(evaluate());
    } catch (...) {
        evaluated.result = OutputsOrError(std::current_exception());
    }
    return evaluated;
}

} // namespace executor
