#pragma once

// Objects of the class-object system and handles on them.
//
// An object is always owned through std::shared_ptr (object arrays hold
// their elements that way). It belongs to a class (null for the bare objects
// that tests and error arrays make by class name), carries native instance
// data per class key (the interned name of the class whose info made it) and
// stored property values.
//
// Life: alive -> destroyed (destroy(): the language deleted it; the instance
// data is released through the class info's destroyInstanceData, once) ->
// gone (last std::shared_ptr released; instance data not yet released is
// released then). A handle of reference type Strong (0) keeps its object
// alive; one of type Weak (2) does not, and reads as null once the object is
// gone. Interpreter thread, except where noted.

#include <host/Export.hpp>
#include <kcos/Interned.hpp>
#include <matrix/dvArray.hpp>

#include <boost/intrusive_ptr.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kcos {

class COSClass;

enum class COSReferenceType : int {
    Strong = 0,
    Weak = 2,
};

class QZHOST_API COSInterface : public matrix::dvObject,
                                public std::enable_shared_from_this<COSInterface> {
public:
    // An object of no registered class.
    explicit COSInterface(std::string className);
    // An object of `cls`, without instance data yet (see omCreateObject).
    explicit COSInterface(COSClass& cls);
    ~COSInterface() override;

    const std::string& className() const noexcept override { return className_; }
    // The class; null for an object of no registered class.
    COSClass* getObjectClass() const noexcept { return class_; }

    // The instance data stored under `classKey`; null when none.
    void* getData(InternedName classKey) const noexcept;
    // Stores instance data under `classKey`, owned by the object from now on
    // (released through the class info of the object's class).
    void setData(InternedName classKey, void* data);

    bool isDestroyed() const noexcept { return destroyed_; }
    // Marks the object deleted and releases its instance data; its memory
    // stays until the last holder lets go. Idempotent.
    void destroy() noexcept;

    // The record that memory owned by this object is accounted to. Any thread.
    const matrix::RootRecordPtr& getRootRecord() const noexcept { return root_; }

    // Stored property values (the base property behaviour); null when unset.
    boost::intrusive_ptr<dvArray> getStoredValue(InternedName property) const;
    void setStoredValue(InternedName property, boost::intrusive_ptr<dvArray> value);

private:
    void releaseInstanceData() noexcept;

    // Read on every visit of an object array's elements: kept next to the
    // object's start (and its reference counts).
    bool destroyed_ = false;
    std::string className_;
    COSClass* class_ = nullptr;
    matrix::RootRecordPtr root_;
    std::vector<std::pair<InternedName, void*>> data_;
    std::vector<std::pair<InternedName, boost::intrusive_ptr<dvArray>>> stored_;
};

class QZHOST_API COSInterfacePtr {
public:
    COSInterfacePtr() noexcept = default;
    // A handle on `object` (null gives an empty handle).
    COSInterfacePtr(COSInterface* object, COSReferenceType type);

    // The object, or null when the handle is empty or a weak handle's object is gone.
    COSInterface* get() const noexcept;
    COSInterface* operator->() const noexcept { return get(); }
    explicit operator bool() const noexcept { return get() != nullptr; }
    // A shared owner of the object; null as for get().
    std::shared_ptr<COSInterface> lock() const noexcept;

private:
    std::shared_ptr<COSInterface> strong_;
    std::weak_ptr<COSInterface> weak_;
    COSReferenceType type_ = COSReferenceType::Strong;
};

} // namespace kcos

// The root record of an object; null for null. Any thread.
QZHOST_API matrix::RootRecordPtr omGetRootRecord(const kcos::COSInterface* object);
// Whether an array holds objects of the legacy object system, which must be
// deep-copied rather than shared. The stand-in has none.
QZHOST_API bool kcosDoesArrayContainLegacyObjects(const dvArray* array) noexcept;
