#pragma once

// Continuations for tests: a recording language function, and the
// interpreter's "parallel" queue run by hand.

#include "LanguageTestSupport.hpp"

#include <iqm/Iqm.hpp>

#include <functional>
#include <memory>
#include <vector>

namespace parallel::language::future::testing {

// A function handle that records the arguments of every call and answers
// with what `respond` gives (its arguments by default). Interpreter thread.
struct RecordingFunction {
    using Respond = std::function<DvArrayVector(std::size_t numOutputs, const DvArrayVector&)>;

    std::shared_ptr<std::vector<DvArrayVector>> calls =
        std::make_shared<std::vector<DvArrayVector>>();
    boost::intrusive_ptr<dvArray> handle;

    explicit RecordingFunction(Respond respond = {}) {
        auto record = calls;
        handle = boost::intrusive_ptr<dvArray>(
            matrix::to_korvex(matrix::createFunctionHandle(
                "recorded",
                [record, respond](std::size_t numOutputs, const DvArrayVector& inputs) {
                    record->push_back(inputs);
                    if (respond) {
                        return respond(numOutputs, inputs);
                    }
                    DvArrayVector outputs(inputs.begin(), inputs.end());
                    outputs.resize(std::min(outputs.size(), numOutputs));
                    return outputs;
                })),
            false);
    }
};

// Whether this build runs under AddressSanitizer or ThreadSanitizer, whose
// larger frames and slower allocation make deep tests shallower.
constexpr bool underSanitizer() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    return true;
#else
    return false;
#endif
#else
    return false;
#endif
}

// Runs what the interpreter has queued under "parallel" now; true when any ran.
inline bool runParallelQueue() {
    return iqm::Iqm::getCurrent()->processOnce({u"parallel"}, std::nullopt);
}

// The first output of entry `i` of `future`, whose outputs are cached, as a double.
inline double firstOutput(FutureBase& future, std::size_t i = 0) {
    return valueOf(future.getOutputs()[i].value().at(0).get());
}

// The fixture of continuation tests: an interpreter thread with the module
// initialised, and a function to continue with that records its calls.
class ContinuationTest : public LanguageTest {
protected:
    RecordingFunction function;
};

} // namespace parallel::language::future::testing
