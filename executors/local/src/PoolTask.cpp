#include "PoolTask.hpp"

namespace localpool {

PoolTask::PoolTask(boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                   const DvArrayVector& inputs, std::weak_ptr<executor::WaitingTasks> queue,
                   std::optional<std::size_t> pinnedWorker)
    : WorkerTask(std::move(queue), pinnedWorker), function_(std::move(function)),
      numOutputs_(numOutputs), inputs_(inputs.begin(), inputs.end()) {}

void PoolTask::run() noexcept {
    executor::Evaluated evaluated = executor::evaluateCapturing(stopFlag(), [this] {
        // The function may write its inputs: it gets arrays no one else has.
        DvArrayVector own;
        own.reserve(inputs_.size());
        for (const auto& input : inputs_) {
            own.emplace_back(input ? matrix::to_korvex(matrix::detail::do_shared_copy(input.get()))
                                   : nullptr,
                             false);
        }
        return dvInvokeFunctionHandle(function_.get(), numOutputs_, own);
    });
    setResult(std::move(evaluated.result), std::move(evaluated.diary));
}

} // namespace localpool
