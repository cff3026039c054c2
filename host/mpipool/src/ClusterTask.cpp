#include "ClusterTask.hpp"

#include "WorkList.hpp"

#include <parallel/language/future/TimelineRecorder.hpp>

namespace mpipool {

ClusterTask::ClusterTask(codec::TaskId id, protocol::Bytes payload, std::weak_ptr<WorkList> work,
                         std::optional<std::size_t> pinnedWorker)
    : id_(id), payload_(std::move(payload)), work_(std::move(work)), pinnedWorker_(pinnedWorker) {}

protocol::Bytes ClusterTask::takePayload() noexcept {
    return std::move(payload_);
}

void ClusterTask::setResult(parallel::language::future::OutputsOrError result,
                            std::u16string diary) {
    if (result.hasError()) {
        parallel::language::future::TimelineRecorder::recordFailure(*this);
    }
    const std::lock_guard lock(resultMutex_);
    result_ = std::move(result);
    diary_ = std::move(diary);
}

void ClusterTask::doCancel() {
    if (const auto work = work_.lock(); work && work->cancel(*this)) {
        // No result will come for it, and only Finished tells the
        // task-finished listeners (a fetchNext asleep on the interpreter
        // thread): notify it once the cancel has made the task Finished.
        afterFinishThen(boost::launch::sync, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                static_cast<ClusterTask&>(*self).markFinished();
            }
        });
    }
}

parallel::language::future::OutputsOrError ClusterTask::doGetOutputsOrError() {
    const std::lock_guard lock(resultMutex_);
    return result_;
}

std::u16string ClusterTask::doGetDiary() {
    const std::lock_guard lock(resultMutex_);
    return diary_;
}

} // namespace mpipool
