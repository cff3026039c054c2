#include "Sendable.hpp"

#include "MpiErrors.hpp"

#include <mpipool/FunctionRegistry.hpp>

#include <foundation/core/str/Utf.hpp>

#include <vector>

namespace mpipool {

namespace {

void checkHandle(const dvArray* handle) {
    const std::string& name = dvGetFunctionHandleName(handle);
    if (!isRegistered(name)) {
        throw errors::UnregisteredFunction(foundation::core::str::toUtf16(name));
    }
}

} // namespace

void checkSendable(const dvArray* function,
                   const parallel::language::future::DvArrayVector& inputs) {
    checkHandle(function);
    std::vector<const dvArray*> unchecked;
    for (const auto& input : inputs) {
        unchecked.push_back(input.get());
    }
    while (!unchecked.empty()) {
        const dvArray* array = unchecked.back();
        unchecked.pop_back();
        if (array == nullptr) {
            continue; // an empty element
        }
        switch (dvGetClassID(array)) {
        case matrix::ClassID::Double:
        case matrix::ClassID::Logical:
        case matrix::ClassID::Char:
            break;
        case matrix::ClassID::FunctionHandle:
            checkHandle(array);
            break;
        case matrix::ClassID::Cell:
            for (std::size_t i = 0, n = dvGetNumberOfElements(array); i < n; ++i) {
                unchecked.push_back(dvGetCell(array, i));
            }
            break;
        case matrix::ClassID::Struct:
            for (std::size_t i = 0, n = dvGetNumberOfElements(array); i < n; ++i) {
                for (const std::string& field : dvGetFieldNames(array)) {
                    unchecked.push_back(dvGetField(array, i, field));
                }
            }
            break;
        default:
            throw errors::UnsupportedArray(foundation::core::str::toUtf16(dvGetClassName(array)));
        }
    }
}

} // namespace mpipool
