#include "Evaluation.hpp"

#include "RegisteredFunctions.hpp"

#include <mpipool/FunctionRegistry.hpp>
#include <mpipool/MpiPool.hpp>

#include <executor/WorkerTask.hpp>

namespace mpipool {

protocol::Bytes evaluate(const codec::TaskMessage& task, const std::atomic<bool>& stop) noexcept {
    using parallel::language::future::OutputsOrError;
    executor::Evaluated evaluated = executor::evaluateCapturing(stop, [&] {
        if (task.inputError) {
            std::rethrow_exception(task.inputError);
        }
        const dvArray* function = findRegistered(task.function);
        boost::intrusive_ptr<dvArray> registeredSince;
        if (function == nullptr) {
            // Throws the error that says so, unless registered meanwhile.
            registeredSince = functionHandle(task.function);
            function = registeredSince.get();
        }
        return dvInvokeFunctionHandle(function, task.numOutputs, task.inputs);
    });
    const codec::Outcome outcome =
        evaluated.result.hasError() ? codec::Outcome::Error : codec::Outcome::Outputs;
    try {
        return codec::encodeResult(task.id, outcome, evaluated.result, evaluated.diary);
    } catch (...) {
        // Out of memory while encoding: report that instead.
        return codec::encodeResult(task.id, codec::Outcome::Error,
                                   OutputsOrError(std::current_exception()), {});
    }
}

} // namespace mpipool
