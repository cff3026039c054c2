#include "Evaluation.hpp"

#include <mpipool/FunctionRegistry.hpp>
#include <mpipool/MpiPool.hpp>

#include <executor/StopRequest.hpp>
#include <kvm/KVM.hpp>

namespace mpipool {

namespace {} // namespace

protocol::Bytes evaluate(const codec::TaskMessage& task, const std::atomic<bool>& stop) noexcept {
    using parallel::language::future::OutputsOrError;
    std::u16string diary;
    OutputsOrError result{std::optional<codec::DvArrayVector>()};
    codec::Outcome outcome = codec::Outcome::Outputs;
    {
        const executor::StopFlagScope stopFlag(stop);
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
