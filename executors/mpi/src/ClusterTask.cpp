#include "ClusterTask.hpp"

#include "WorkList.hpp"

#include <executor/FinishOnceCancelled.hpp>
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
        executor::finishOnceCancelled(*this); // no result will come for it
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
