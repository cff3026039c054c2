#pragma once

// Objects of the class-object system and handles on them.
//
// An object is always owned through std::shared_ptr (object arrays hold
// their elements that way). A handle of reference type Strong (0) keeps its
// object alive; one of type Weak (2) does not, and reads as null once the
// object is gone. Deleting an object marks it destroyed; handles and arrays
// that still hold it then see isDestroyed() true. Interpreter thread.

#include <host/Export.hpp>
#include <matrix/dvArray.hpp>

#include <memory>
#include <string>

namespace kcos {

enum class COSReferenceType : int {
    Strong = 0,
    Weak = 2,
};

class QZHOST_API COSInterface : public matrix::dvObject,
                                public std::enable_shared_from_this<COSInterface> {
public:
    explicit COSInterface(std::string className);
    ~COSInterface() override;

    const std::string& className() const noexcept override { return className_; }
    bool isDestroyed() const noexcept { return destroyed_; }
    // Marks the object deleted; its memory stays until the last holder lets go.
    void destroy() noexcept { destroyed_ = true; }
    // The record that memory owned by this object is accounted to.
    const matrix::RootRecordPtr& getRootRecord() const noexcept { return root_; }

private:
    std::string className_;
    bool destroyed_ = false;
    matrix::RootRecordPtr root_;
};

class QZHOST_API COSInterfacePtr {
public:
    COSInterfacePtr() noexcept = default;
    // A handle on `object` (null gives an empty handle).
    COSInterfacePtr(COSInterface* object, COSReferenceType type);

    // The object, or null when the handle is empty or a weak handle's object is gone.
    COSInterface* get() const noexcept;
    explicit operator bool() const noexcept { return get() != nullptr; }
    COSReferenceType getReferenceType() const noexcept { return type_; }

private:
    std::shared_ptr<COSInterface> strong_;
    std::weak_ptr<COSInterface> weak_;
    COSReferenceType type_ = COSReferenceType::Strong;
};

} // namespace kcos

// The root record of an object; null for null.
QZHOST_API matrix::RootRecordPtr omGetRootRecord(const kcos::COSInterface* object);
// Whether an array holds objects of the legacy object system, which must be
// deep-copied rather than shared. The stand-in has none.
QZHOST_API bool kcosDoesArrayContainLegacyObjects(const dvArray* array) noexcept;
