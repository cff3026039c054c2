// Function-handle values: creation, name and invocation.

#include "Storage.hpp"

#include <stdexcept>

using matrix::ClassID;
using namespace matrix::detail;

namespace {
const FunctionData& functionOf(const dvArray* function) {
    return std::get<FunctionData>(ArrayAccess::data(checked(function, ClassID::FunctionHandle,
                                                            "Array is not function handle."))
                                      .value);
}
} // namespace

matrix::unique_dvArray matrix::createFunctionHandle(std::string name, FunctionBody body) {
    return ArrayAccess::make(
        ClassID::FunctionHandle, matrix::Dimensions(), // 1-by-1
        FunctionData{std::move(name), std::make_shared<const FunctionBody>(std::move(body))});
}

const std::string& dvGetFunctionHandleName(const dvArray* function) {
    return functionOf(function).name;
}

std::vector<ArrayRef> dvInvokeFunctionHandle(const dvArray* function, std::size_t numOutputs,
                                             const std::vector<ArrayRef>& inputs) {
    // Keep the body alive even if the call releases the function's last reference.
    const std::shared_ptr<const matrix::FunctionBody> body = functionOf(function).body;
    std::vector<ArrayRef> results = (*body)(numOutputs, inputs);
    if (results.size() < numOutputs) {
        error_maxlhs();
    }
    results.resize(numOutputs);
    return results;
}

void dvInvokeFunctionHandle(const dvArray* function, std::size_t numOutputs, dvArray** outputs,
                            std::size_t numInputs, dvArray* const* inputs) {
    if ((numOutputs != 0 && !outputs) || (numInputs != 0 && !inputs)) {
        throw std::invalid_argument("Argument buffer is null.");
    }
    const std::vector<ArrayRef> arguments(inputs, inputs + numInputs); // adds references
    std::vector<ArrayRef> results = dvInvokeFunctionHandle(function, numOutputs, arguments);
    for (std::size_t i = 0; i < numOutputs; ++i) {
        outputs[i] = results[i].detach();
    }
}
