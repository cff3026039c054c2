#include "PoolTask.hpp"

namespace localpool {

namespace {

boost::intrusive_ptr<dvArray> sharedCopy(const boost::intrusive_ptr<dvArray>& array) {
    if (!array) {
        return nullptr;
    }
    return {matrix::to_korvex(matrix::detail::do_shared_copy(array.get())), false};
}

} // namespace

PoolTask::PoolTask(boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                   const DvArrayVector& inputs, std::weak_ptr<executor::WaitingTasks> queue,
                   std::optional<std::size_t> pinnedWorker)
    : WorkerTask(std::move(queue), pinnedWorker), function_(std::move(function)),
      numOutputs_(numOutputs) {
    inputs_.reserve(inputs.size());
    for (const auto& input : inputs) {
        inputs_.push_back(sharedCopy(input));
    }
}

void PoolTask::run() noexcept {
    executor::Evaluated evaluated = executor::evaluateCapturing(stopFlag(), [this] {
        return dvInvokeFunctionHandle(function_.get(), numOutputs_, inputs_);
    });
    function_.reset();
    inputs_.clear();
    setResult(std::move(evaluated.result), std::move(evaluated.diary));
}

} // namespace localpool
