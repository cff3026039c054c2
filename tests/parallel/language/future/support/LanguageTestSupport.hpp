#pragma once

// The language side for tests: an interpreter on the test's thread with the
// module initialised, and short ways to build objects, read properties and
// call methods as the language does.

#include "FutureTestSupport.hpp"

#include <parallel/language/future/Module.hpp>

#include <foundation/core/str/Utf.hpp>
#include <kcos/COSClass.hpp>
#include <kcos/Language.hpp>
#include <kcos/array.hpp>

#include <string>
#include <vector>

namespace parallel::language::future::testing {

inline kcos::InternedName interned(const char* name) {
    return kcos::internal::makeInterned(name);
}

// The 1-by-N object array of `futures`.
inline matrix::unique_dvArray objects(const std::vector<std::shared_ptr<FutureBase>>& futures) {
    return FutureBase::toKorvexArray(futures, {});
}

inline matrix::unique_dvArray property(const dvArray* object, const char* name) {
    return omGetProperty(object, name, COSGetPublicClient());
}

inline std::string textOf(const dvArray* array) {
    return foundation::core::str::toUtf8(dvGetChars(array));
}

inline std::string propertyText(const dvArray* object, const char* name) {
    return textOf(property(object, name).get());
}

// Constructs `className` with `args`, as the language does.
inline matrix::unique_dvArray construct(const char* className,
                                        std::vector<boost::intrusive_ptr<dvArray>> args = {}) {
    std::vector<dvArray*> raw;
    for (const auto& arg : args) {
        raw.push_back(arg.get());
    }
    return matrix::unique_dvArray(omConstructObjectWithClient(
        interned(className), static_cast<int>(raw.size()), raw.data(), COSGetPublicClient()));
}

// Calls a method on an object array (the first input) for `numOutputs`.
inline std::vector<matrix::unique_dvArray> call(const char* method, int numOutputs,
                                                std::vector<const dvArray*> inputs) {
    return omInvokeMethod(method, numOutputs, inputs, COSGetPublicClient());
}

inline double posixTime(const dvArray* datetime) {
    return valueOf(call("posixtime", 1, {datetime}).at(0).get());
}

inline double secondsOf(const dvArray* duration) {
    return valueOf(call("seconds", 1, {duration}).at(0).get());
}

inline std::shared_ptr<FutureBase> futureOf(const dvArray* objectArray) {
    return FutureBase::fromKorvexArray(objectArray).at(0);
}

// An interpreter thread with "parallel.Future" registered.
class LanguageTest : public InterpreterTest {
protected:
    LanguageTest() { KVInitialize_libqzparallellanguagefuture(); }
};

} // namespace parallel::language::future::testing
