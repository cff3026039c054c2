#pragma once

// Data types of properties and method signatures. A type is named: "any"
// (every value), "logical scalar" (a 1-by-1 logical array, or a bare logical
// value), or a class name (object arrays of that class or of a class derived
// from it; aliases name their target). Types live for the process.

#include <host/Export.hpp>
#include <kcos/COSValue.hpp>
#include <kcos/Enumeration.hpp>
#include <kcos/Interned.hpp>
#include <matrix/dvArray.hpp>

#include <memory>

namespace kcos {

class COSInterface;

class QZHOST_API COSDataType {
public:
    explicit COSDataType(InternedName name);
    virtual ~COSDataType();
    COSDataType(const COSDataType&) = delete;
    COSDataType& operator=(const COSDataType&) = delete;

    InternedName getName() const noexcept { return name_; }
    // Whether `value` is a value of this type. Interpreter thread.
    bool accepts(const COSValue& value) const;
    // The objects held in `value`: the elements of object arrays, also inside
    // cells and structures, in element order; null elements are skipped.
    // Arrays without objects give an empty enumeration. Interpreter thread.
    Enumeration<COSInterface*> getInterfaces(const dvArray* value) const;

private:
    InternedName name_;
};

using COSDataTypePtr = std::shared_ptr<const COSDataType>;

class QZHOST_API COSTypeRepository {
public:
    // The type of that name; the same object for the same name. Any thread.
    static COSDataTypePtr getType(InternedName name);
};

} // namespace kcos
