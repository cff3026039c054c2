#pragma once

// Classes of the class-object system.
//
// A class is described by a COSClassInfo registered in a package
// (COSPackage::registerClassInfo); the host builds the class itself, a
// COSClass, on first use (COSClass::getClass), by calling the info's
// initializeClass, which declares superclasses, properties and methods. The
// package owns the info; the class owns its properties and methods. Aliases
// (COSDictionary::registerBuiltinClassAlias) are further names of a class.
// Infos and classes live for the process: a class registered again replaces
// the name's entry, but objects of the old class keep it.
//
// Registration is safe from any thread; classes are built, and objects,
// properties and methods used, on the interpreter thread.

#include <host/Export.hpp>
#include <kcos/COSInterface.hpp>
#include <kcos/COSType.hpp>
#include <kcos/COSValue.hpp>
#include <kcos/Enumeration.hpp>
#include <kcos/Interned.hpp>
#include <matrix/dvArray.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kcos {

class COSClass;
class COSPackage;

// Bits of a property's attribute word.
namespace property_attribute {
// Not saved with the object.
inline constexpr unsigned Transient = 0x0020;
// Listed among the class's properties (absent: hidden).
inline constexpr unsigned Visible = 0x0800;
// Computed on each read rather than stored.
inline constexpr unsigned Dependent = 0x2000;
} // namespace property_attribute

// A property. The base stores values per object (a missing value reads as
// the 0-by-0 double array); classes with computed properties override
// getValue, setValue and releaseValue. The host reads a property by calling
// getValue, taking its own copy of the value and handing the array back
// through releaseValue.
class QZHOST_API COSPropT {
public:
    // `description` may be null.
    COSPropT(InternedName name, COSDataTypePtr type, int getAccess, int setAccess,
             unsigned attributes, const char16_t* description);
    virtual ~COSPropT();
    COSPropT(const COSPropT&) = delete;
    COSPropT& operator=(const COSPropT&) = delete;

    InternedName getName() const noexcept { return name_; }
    const COSDataTypePtr& getType() const noexcept { return type_; }
    int getGetAccess() const noexcept { return getAccess_; }
    int getSetAccess() const noexcept { return setAccess_; }
    unsigned getAttributes() const noexcept { return attributes_; }
    bool isHidden() const noexcept { return (attributes_ & property_attribute::Visible) == 0; }
    const std::u16string& getDescription() const noexcept { return description_; }

    // Host read entry: stores the property's value of `object` into `out`.
    virtual void getValue(COSValue* out, COSInterface* object) const;
    // Host write entry.
    virtual void setValue(COSInterface* object, const COSValue& value) const;
    // Gives back an array that getValue stored, carrying its reference.
    virtual void releaseValue(COSInterface* object, dvArray* value) const;
    // Whether the property holds objects or arrays that the host's walks over
    // an object's contents must see (getInterfaces, getKVArrays).
    virtual bool canContainInterfaces() const;
    virtual Enumeration<COSInterface*> getInterfaces(const COSClient* client,
                                                     COSInterface* object) const;
    virtual Enumeration<dvArray*> getKVArrays(const COSClient* client, COSInterface* object) const;

private:
    InternedName name_;
    COSDataTypePtr type_;
    int getAccess_;
    int setAccess_;
    unsigned attributes_;
    std::u16string description_;
};

// The declared inputs and outputs of a method.
class QZHOST_API COSMethodSignature {
public:
    void addInputType(COSDataTypePtr type);
    void addOutputType(COSDataTypePtr type);
    // The last declared input (output) type repeats any number of times.
    void setVariableInputs(bool variable = true) noexcept { variableInputs_ = variable; }
    void setVariableOutputs(bool variable = true) noexcept { variableOutputs_ = variable; }

    const std::vector<COSDataTypePtr>& getInputTypes() const noexcept { return inputs_; }
    const std::vector<COSDataTypePtr>& getOutputTypes() const noexcept { return outputs_; }
    bool hasVariableInputs() const noexcept { return variableInputs_; }
    bool hasVariableOutputs() const noexcept { return variableOutputs_; }

private:
    std::vector<COSDataTypePtr> inputs_;
    std::vector<COSDataTypePtr> outputs_;
    bool variableInputs_ = false;
    bool variableOutputs_ = false;
};

// A method. The host calls it through invoke after checking the numbers of
// inputs and outputs against the signature (too many inputs: maxrhs; too
// many outputs: maxlhs). A method named after its class's short name is the
// class's constructor: invoke gets the 1-by-1 object array under
// construction in outputs[0] and leaves the result there.
class QZHOST_API COSMethodBase {
public:
    // `description` may be null.
    COSMethodBase(InternedName name, int access, const char16_t* description);
    virtual ~COSMethodBase();
    COSMethodBase(const COSMethodBase&) = delete;
    COSMethodBase& operator=(const COSMethodBase&) = delete;

    InternedName getName() const noexcept { return name_; }
    int getAccess() const noexcept { return access_; }
    COSMethodSignature& getSignature() noexcept { return signature_; }
    const COSMethodSignature& getSignature() const noexcept { return signature_; }
    // A static method is called on its class; other methods get the object
    // array they are called on as their first input.
    bool isStatic() const noexcept { return static_; }
    void setStatic(bool isStatic = true) noexcept { static_ = isStatic; }

    // Host call entry. `numOutputs` in: the number requested; out: the number
    // produced, stored in outputs[0..). `outputs` has room for at least
    // max(requested, 1) values. Interpreter thread.
    virtual void invoke(const COSClient* client, int& numOutputs, COSValue* outputs, int numInputs,
                        const COSValue* inputs) = 0;
    // Whether the method is listed among the class's methods.
    virtual bool isVisible() const;

private:
    InternedName name_;
    int access_;
    std::u16string description_;
    COSMethodSignature signature_;
    bool static_ = false;
};

// Describes a class to the host. Every query has a plain default; a class
// overrides what differs.
class QZHOST_API COSClassInfo {
public:
    static void* operator new(std::size_t size);
    static void operator delete(void* memory) noexcept;

    COSClassInfo();
    virtual ~COSClassInfo();
    COSClassInfo(const COSClassInfo&) = delete;
    COSClassInfo& operator=(const COSClassInfo&) = delete;

    // The short name, without package.
    virtual const char* getName() const = 0;
    virtual const char16_t* getDescription() const;
    virtual const char16_t* getDetailedDescription() const;
    // Declares superclasses, properties and methods of `cls`.
    virtual void initializeClass(COSClass* cls, const COSClient* client);
    // The instance data of a new object of the class (null: none), and its
    // release when the object is deleted or dies.
    virtual void* createInstanceData();
    virtual void destroyInstanceData(COSInterface* object, void* data);
    virtual void instanceDataHook(COSInterface* object, void* data);
    // Objects are handles: copies of an array refer to the same objects.
    virtual bool isHandleClass() const;
    // No class may derive from this one.
    virtual bool isSealed() const;
    // Arrays of the class may hold objects of its subclasses and aliases together.
    virtual bool allowsHeterogeneousArrays() const;
    // Called after an object was loaded.
    virtual void instanceLoaded(COSInterface* object);
    // Saves `object` into `value` (a 1-by-1 structure of its stored, not
    // transient and not dependent, property values) and names its `type`
    // (the class). False: the object is not saved.
    virtual bool customSave(COSInterfacePtr object, COSValue& value, COSDataTypePtr& type);
    // Restores `object` from a saved `value`; false lets the host restore the
    // stored property values itself.
    virtual bool customLoad(COSInterfacePtr object, const COSValue& value);
    // Objects carry native instance data (createInstanceData).
    virtual bool hasNativeInstanceData() const;
};

// A class as the host built it from its info.
class QZHOST_API COSClass {
public:
    // The class of that full name ("pkg.Name") or alias, built on first use;
    // null when there is none. Interpreter thread.
    static COSClass* getClass(InternedName name);

    COSClass(COSPackage& package, COSClassInfo& info);
    ~COSClass();
    COSClass(const COSClass&) = delete;
    COSClass& operator=(const COSClass&) = delete;

    // The full name, "pkg.Name" (the short name for the top-level package).
    InternedName getInternedName() const noexcept { return name_; }
    COSClassInfo& getClassInfo() const noexcept { return *info_; }

    // Declares `superclass` (a class name) as a superclass; `required` makes
    // a missing class an error (UndefinedClass).
    void addSuperclass(InternedName superclass, int access, int flags, bool required);
    // Take ownership.
    void addProperty(COSPropT* property);
    void addMethod(COSMethodBase* method);

    const std::vector<COSClass*>& getSuperclasses() const noexcept { return superclasses_; }
    const std::vector<std::unique_ptr<COSPropT>>& getProperties() const noexcept;
    const std::vector<std::unique_ptr<COSMethodBase>>& getMethods() const noexcept;
    // By name, in this class and then its superclasses; null when missing.
    const COSPropT* findProperty(std::string_view name) const;
    COSMethodBase* findMethod(std::string_view name) const;
    // This class, or one of its superclasses (transitively), is `other`.
    bool isSubclassOf(const COSClass& other) const;

    // How many objects of this class have been deleted so far: while it
    // stays the same, every object of the class that was alive is alive.
    // The count is raised after the object is marked destroyed (release),
    // read with acquire. Any thread.
    std::uint64_t getDeletionCount() const noexcept {
        return deletions_.load(std::memory_order_acquire);
    }

private:
    friend class COSInterface; // counts its own deletion
    void countDeletion() noexcept { deletions_.fetch_add(1, std::memory_order_release); }

    COSClassInfo* info_;
    InternedName name_;
    std::vector<COSClass*> superclasses_;
    std::vector<std::unique_ptr<COSPropT>> properties_;
    std::vector<std::unique_ptr<COSMethodBase>> methods_;
    std::atomic<std::uint64_t> deletions_{0};
};

// A package (namespace) of classes. Packages live for the process.
class QZHOST_API COSPackage {
public:
    explicit COSPackage(std::string name);
    ~COSPackage();
    COSPackage(const COSPackage&) = delete;
    COSPackage& operator=(const COSPackage&) = delete;

    // "parallel", "parallel.internal.queue"; empty for the top level.
    const std::string& getPackageName() const noexcept { return name_; }
    // Registers `info` under info->getName(), taking ownership. A name
    // registered again gets the new info (and a class built from it on next
    // use). `flags` and `access` are kept for the host's own checks. Any thread.
    void registerClassInfo(COSClassInfo* info, int flags, int access);
    // The info registered under a short name; null when none. Any thread.
    COSClassInfo* findClassInfo(std::string_view shortName) const;

private:
    friend class COSClass; // builds classes from the entries
    struct Impl;
    std::string name_;
    std::unique_ptr<Impl> impl_;
};

namespace COSDictionary {
// Makes `alias` a further name of the class `target`. An alias that already
// names another target is replaced when `replace` is true, else refused with
// std::invalid_argument; the same pair again does nothing. Any thread.
QZHOST_API void registerBuiltinClassAlias(InternedName alias, InternedName target, bool replace);
// The target of an alias; the name itself when it is no alias. Any thread.
QZHOST_API InternedName resolveAlias(InternedName name);
} // namespace COSDictionary

// The package of that name, made on first use. Any thread.
QZHOST_API COSPackage* omGetNamespace(std::string_view name);

} // namespace kcos

// Whether class state is kept per user session (USM) rather than per process,
// so that modules register their classes on every initialisation. Off unless
// set. Any thread.
QZHOST_API bool omGetKcosUsingUSM() noexcept;
QZHOST_API void omSetKcosUsingUSM(bool usingUSM) noexcept;
