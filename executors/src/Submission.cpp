#include <executor/Submission.hpp>

#include <kcos/Language.hpp>

namespace executor {

void checkFunction(const dvArray* function) {
    if (function == nullptr || dvGetClassID(function) != matrix::ClassID::FunctionHandle) {
        throw errors::InvalidFunction();
    }
}

void checkSubmission(const boost::intrusive_ptr<dvArray>& function, unsigned int numOutputs) {
    checkFunction(function.get());
    if (numOutputs > kcos::kMaxNumOutputs) {
        matrix::detail::error_maxlhs();
    }
}

void markSubmitted(std::span<const std::shared_ptr<WorkerTask>> tasks) {
    for (const auto& task : tasks) {
        task->markPending();
    }
    for (const auto& task : tasks) {
        task->markQueued();
    }
}

void refuseAfterShutdown(std::span<const std::shared_ptr<WorkerTask>> tasks) {
    for (const auto& task : tasks) {
        task->cancel();
    }
    throw errors::PoolShutDown();
}

} // namespace executor
