#include "PoolTask.hpp"

#include "TaskQueue.hpp"

#include <localpool/LocalPool.hpp>

#include <executor/FinishOnceCancelled.hpp>
#include <executor/StopRequest.hpp>
#include <parallel/language/future/TimelineRecorder.hpp>

#include <kcos/Language.hpp>
#include <kvm/KVM.hpp>

#include <vector>

namespace localpool {

namespace {

boost::intrusive_ptr<dvArray> sharedCopy(const boost::intrusive_ptr<dvArray>& array) {
    if (!array) {
        return nullptr;
    }
    return {matrix::to_korvex(matrix::detail::do_shared_copy(array.get())), false};
}

// Calls `function`; the outputs come back owned. The function's errors pass through.
DvArrayVector invoke(const dvArray* function, unsigned int numOutputs,
                     const DvArrayVector& inputs) {
    std::vector<dvArray*> rawInputs;
    rawInputs.reserve(inputs.size());
    for (const auto& input : inputs) {
        rawInputs.push_back(input.get());
    }
    std::vector<dvArray*> rawOutputs(numOutputs, nullptr);
    try {
        dvInvokeFunctionHandle(function, rawOutputs.size(), rawOutputs.data(), rawInputs.size(),
                               rawInputs.data());
    } catch (...) {
        for (dvArray* output : rawOutputs) {
            matrix::destroyArray(output);
        }
        throw;
    }
    DvArrayVector outputs;
    outputs.reserve(rawOutputs.size());
    for (dvArray* output : rawOutputs) {
        outputs.emplace_back(output, false);
    }
    return outputs;
}

} // namespace

PoolTask::PoolTask(boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                   const DvArrayVector& inputs, std::weak_ptr<TaskQueue> queue,
                   std::optional<std::size_t> pinnedWorker)
    : function_(std::move(function)), numOutputs_(numOutputs), queue_(std::move(queue)),
      pinnedWorker_(pinnedWorker) {
    // The worker sizes the function's output buffer by the count.
    if (numOutputs_ > kcos::kMaxNumOutputs) {
        matrix::detail::error_maxlhs();
    }
    inputs_.reserve(inputs.size());
    for (const auto& input : inputs) {
        inputs_.push_back(sharedCopy(input));
    }
}

void PoolTask::run() noexcept {
    std::u16string diary;
    OutputsOrError result{std::optional<DvArrayVector>()};
    {
        executor::StopFlagScope stopFlag(stop_);
        kvm::DiarySink sink(diary);
        try {
            result = OutputsOrError(invoke(function_.get(), numOutputs_, inputs_));
        } catch (...) {
            result = OutputsOrError(std::current_exception());
            parallel::language::future::TimelineRecorder::recordFailure(*this);
        }
    }
    function_.reset();
    inputs_.clear();
    std::lock_guard lock(resultMutex_);
    result_ = std::move(result);
    diary_ = std::move(diary);
}

void PoolTask::doCancel() {
    // A task still waiting (in the shared queue or in its worker's pinned
    // queue) never reaches a worker; for one that a worker has taken already,
    // the stop flag keeps its function from starting or asks it to return
    // early.
    if (const auto queue = queue_.lock(); queue && queue->remove(*this)) {
        executor::finishOnceCancelled(*this); // no worker will
    }
    requestStop();
}

OutputsOrError PoolTask::doGetOutputsOrError() {
    std::lock_guard lock(resultMutex_);
    return result_;
}

std::u16string PoolTask::doGetDiary() {
    std::lock_guard lock(resultMutex_);
    return diary_;
}

} // namespace localpool
