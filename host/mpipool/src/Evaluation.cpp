#include "Evaluation.hpp"

#include <mpipool/FunctionRegistry.hpp>
#include <mpipool/MpiPool.hpp>

#include <kvm/KVM.hpp>

namespace mpipool {

namespace {

// The stop flag of the task whose function runs on this thread, if any.
thread_local const std::atomic<bool>* currentStopFlag = nullptr;

// Makes stopRequested() on this thread read `flag` while alive.
class StopFlagScope {
public:
    explicit StopFlagScope(const std::atomic<bool>& flag) noexcept : previous_(currentStopFlag) {
        currentStopFlag = &flag;
    }
    ~StopFlagScope() { currentStopFlag = previous_; }
    StopFlagScope(const StopFlagScope&) = delete;
    StopFlagScope& operator=(const StopFlagScope&) = delete;

private:
    const std::atomic<bool>* previous_;
};

} // namespace

bool stopRequested() noexcept {
    return currentStopFlag != nullptr && currentStopFlag->load();
}

protocol::Bytes evaluate(const codec::TaskMessage& task, const std::atomic<bool>& stop) noexcept {
    using parallel::language::future::OutputsOrError;
    std::u16string diary;
    OutputsOrError result{std::optional<codec::DvArrayVector>()};
    codec::Outcome outcome = codec::Outcome::Outputs;
    {
        const StopFlagScope stopFlag(stop);
        const kvm::DiarySink sink(diary);
        try {
            if (task.inputError) {
                std::rethrow_exception(task.inputError);
            }
            const boost::intrusive_ptr<dvArray> function = functionHandle(task.function);
            result = OutputsOrError(std::optional<codec::DvArrayVector>(
                dvInvokeFunctionHandle(function.get(), task.numOutputs, task.inputs)));
        } catch (...) {
            outcome = codec::Outcome::Error;
            result = OutputsOrError(std::current_exception());
        }
    }
    try {
        return codec::encodeResult(task.id, outcome, result, diary);
    } catch (...) {
        // Out of memory while encoding: report that instead.
        return codec::encodeResult(task.id, codec::Outcome::Error,
                                   OutputsOrError(std::current_exception()), {});
    }
}

} // namespace mpipool
