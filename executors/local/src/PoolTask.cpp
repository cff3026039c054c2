#include "PoolTask.hpp"

#include <memory>

namespace localpool {

PoolTask::PoolTask(boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                   const DvArrayVector& inputs, std::weak_ptr<executor::WaitingTasks> queue,
                   std::optional<std::size_t> pinnedWorker)
    : WorkerTask(std::move(queue), pinnedWorker), function_(std::move(function)),
      numOutputs_(numOutputs), inputs_(inputs.begin(), inputs.end()) {}

void PoolTask::run() noexcept {
    // The function may write its inputs: it gets arrays no one else has, in a
    // vector that this worker thread reuses (only workerLoop calls run).
    thread_local DvArrayVector own;
    executor::Evaluated evaluated = executor::evaluateCapturing(stopFlag(), [this] {
        const std::unique_ptr<DvArrayVector, void (*)(DvArrayVector*)> emptied(
            &own, [](DvArrayVector* arrays) { arrays->clear(); });
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
