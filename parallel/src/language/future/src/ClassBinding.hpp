#pragma once

// Pieces of the language class "parallel.Future" shared by its units.
// Interpreter thread throughout.

#include <parallel/language/future/FutureBase.hpp>

#include <kcos/COSClass.hpp>
#include <kcos/COSValue.hpp>

#include <concepts>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace parallel::language::future {

// The class binding's access to what FutureBase keeps private.
struct FutureBaseAccess {
    static void setCosi(FutureBase& future, kcos::COSInterface* object) { future.setCosi(object); }
    static auto fetchNextThrough(detail::FetchNextDrain& drain,
                                 std::span<const std::shared_ptr<FutureBase>> futures,
                                 unsigned int numOutputs, Seconds timeout) {
        return FutureBase::fetchNextThrough(drain, futures, numOutputs, timeout);
    }
};

namespace binding {

// The instance data of a future object: one heap cell holding the future.
using FutureCell = std::shared_ptr<FutureBase>;

// The cell of `object` under `classKey`; null when the object has none.
FutureCell* findFutureCell(kcos::COSInterface* object, kcos::InternedName classKey) noexcept;

// The future of `object`: the one in its cell, or an unavailable future
// when the object is gone or carries none.
std::shared_ptr<FutureBase> futureOf(kcos::COSInterface* object, kcos::InternedName classKey);

// The array held by a method input; std::invalid_argument when it holds none.
const dvArray* arrayOf(const kcos::COSValue& value);

// A char row of narrow text.
matrix::unique_dvArray charRow(std::string_view text);

// Hands a property or method to the class being built, which owns it once
// the call returns.
template <class Property>
requires std::derived_from<Property, kcos::COSPropT>
void addOwned(kcos::COSClass& cls, std::unique_ptr<Property> property) {
    cls.addProperty(property.get());
    property.release();
}
template <class Method>
requires std::derived_from<Method, kcos::COSMethodBase>
void addOwned(kcos::COSClass& cls, std::unique_ptr<Method> method) {
    cls.addMethod(method.get());
    method.release();
}

// Adds the properties, in their order, to the class being built.
void addProperties(kcos::COSClass& cls);
// Adds the constructor and the methods, in their order.
void addMethods(kcos::COSClass& cls);

} // namespace binding
} // namespace parallel::language::future
