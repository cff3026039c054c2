// Packages, class infos, built classes, aliases, properties and methods.
//
// The registry is one process-wide object behind a mutex. Infos and classes
// are never freed while the process runs: a name registered again moves its
// old info and class to a keep-alive list, since objects may still point at
// them. Class infos are called without the lock held (initializeClass builds
// superclasses through getClass).

#include <kcos/COSClass.hpp>
#include <kcos/Errors.hpp>

#include "Registry.hpp"

#include <foundation/core/str/Utf.hpp>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <stdexcept>

namespace kcos {

namespace {

struct Entry {
    COSClassInfo* info = nullptr;
    std::unique_ptr<COSClass> cls; // built on first use
};

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<COSPackage>, std::less<>> packages;
    std::map<InternedName, InternedName> aliases;
    std::vector<std::unique_ptr<COSClassInfo>> infos; // every info ever registered
    std::vector<std::unique_ptr<COSClass>> retired;   // classes of replaced infos
};

Registry& registry() {
    static Registry* instance = new Registry(); // lives for the process
    return *instance;
}

std::atomic<bool> gUsingUSM{false};

} // namespace

struct COSPackage::Impl {
    std::map<std::string, Entry, std::less<>> entries; // guarded by the registry mutex
};

namespace detail {

std::pair<std::string, std::string> splitClassName(std::string_view fullName) {
    const std::size_t dot = fullName.rfind('.');
    if (dot == std::string_view::npos) {
        return {std::string(), std::string(fullName)};
    }
    return {std::string(fullName.substr(0, dot)), std::string(fullName.substr(dot + 1))};
}

} // namespace detail

// --- COSPropT ---------------------------------------------------------------

COSPropT::COSPropT(InternedName name, COSDataTypePtr type, int getAccess, int setAccess,
                   unsigned attributes, const char16_t* description)
    : name_(name), type_(std::move(type)), getAccess_(getAccess), setAccess_(setAccess),
      attributes_(attributes), description_(description != nullptr ? description : u"") {}

COSPropT::~COSPropT() = default;

void COSPropT::getValue(COSValue* out, COSInterface* object) const {
    out->reset();
    if (boost::intrusive_ptr<dvArray> stored = object->getStoredValue(name_)) {
        out->setArray(matrix::detail::do_shared_copy(stored.get()));
    }
}

void COSPropT::setValue(COSInterface* object, const COSValue& value) const {
    const dvArray* array = value.getArray();
    if (value.holdsBool()) {
        object->setStoredValue(
            name_, boost::intrusive_ptr<dvArray>(
                       matrix::to_korvex(dvCreateLogicalScalar(value.getBool())), false));
        return;
    }
    object->setStoredValue(
        name_, array != nullptr
                   ? boost::intrusive_ptr<dvArray>(
                         matrix::to_korvex(matrix::detail::do_shared_copy(array)), false)
                   : nullptr);
}

void COSPropT::releaseValue(COSInterface*, dvArray* value) const {
    matrix::destroyArray(value);
}

bool COSPropT::canContainInterfaces() const {
    return false;
}

Enumeration<COSInterface*> COSPropT::getInterfaces(const COSClient*, COSInterface*) const {
    return {};
}

Enumeration<dvArray*> COSPropT::getKVArrays(const COSClient*, COSInterface*) const {
    return {};
}

// --- Methods ----------------------------------------------------------------

void COSMethodSignature::addInputType(COSDataTypePtr type) {
    inputs_.push_back(std::move(type));
}

void COSMethodSignature::addOutputType(COSDataTypePtr type) {
    outputs_.push_back(std::move(type));
}

COSMethodBase::COSMethodBase(InternedName name, int access, const char16_t* description)
    : name_(name), access_(access), description_(description != nullptr ? description : u"") {}

COSMethodBase::~COSMethodBase() = default;

bool COSMethodBase::isVisible() const {
    return true;
}

// --- COSClassInfo defaults --------------------------------------------------

void* COSClassInfo::operator new(std::size_t size) {
    return ::operator new(size);
}
void COSClassInfo::operator delete(void* memory) noexcept {
    ::operator delete(memory);
}

COSClassInfo::COSClassInfo() = default;
COSClassInfo::~COSClassInfo() = default;

const char16_t* COSClassInfo::getDescription() const {
    return u"";
}
const char16_t* COSClassInfo::getDetailedDescription() const {
    return u"";
}
void COSClassInfo::initializeClass(COSClass*, const COSClient*) {}
void* COSClassInfo::createInstanceData() {
    return nullptr;
}
void COSClassInfo::destroyInstanceData(COSInterface*, void*) {}
void COSClassInfo::instanceDataHook(COSInterface*, void*) {}
bool COSClassInfo::isHandleClass() const {
    return false;
}
bool COSClassInfo::isSealed() const {
    return false;
}
bool COSClassInfo::allowsHeterogeneousArrays() const {
    return false;
}
void COSClassInfo::instanceLoaded(COSInterface*) {}

bool COSClassInfo::customSave(COSInterfacePtr object, COSValue& value, COSDataTypePtr& type) {
    COSClass* cls = object ? object->getObjectClass() : nullptr;
    if (cls == nullptr) {
        throw std::invalid_argument("Only objects of a class can be saved.");
    }
    std::vector<const COSPropT*> saved;
    std::vector<const COSClass*> pending{cls};
    while (!pending.empty()) {
        const COSClass* current = pending.back();
        pending.pop_back();
        for (const auto& property : current->getProperties()) {
            const unsigned skip = property_attribute::Transient | property_attribute::Dependent;
            if ((property->getAttributes() & skip) == 0 &&
                object->getStoredValue(property->getName())) {
                saved.push_back(property.get());
            }
        }
        pending.insert(pending.end(), current->getSuperclasses().begin(),
                       current->getSuperclasses().end());
    }
    std::vector<std::string> fields;
    for (const COSPropT* property : saved) {
        fields.push_back(property->getName().str());
    }
    matrix::unique_dvArray values = matrix::detail::do_create_struct({1, 1}, fields);
    for (const COSPropT* property : saved) {
        dvSetField(
            values.get(), 0, property->getName().str(),
            matrix::detail::do_shared_copy(object->getStoredValue(property->getName()).get()));
    }
    value.setArray(std::move(values));
    type = COSTypeRepository::getType(cls->getInternedName());
    return true;
}

bool COSClassInfo::customLoad(COSInterfacePtr, const COSValue&) {
    return false;
}
bool COSClassInfo::hasNativeInstanceData() const {
    return false;
}

// --- COSClass ---------------------------------------------------------------

COSClass::COSClass(COSPackage& package, COSClassInfo& info)
    : info_(&info),
      name_(internal::makeInterned(package.getPackageName().empty()
                                       ? std::string(info.getName())
                                       : package.getPackageName() + "." + info.getName())) {}

COSClass::~COSClass() = default;

void COSClass::addSuperclass(InternedName superclass, int, int, bool required) {
    COSClass* found = getClass(superclass);
    if (found == nullptr) {
        if (required) {
            throw foundation::core::except::Exception<KORVEX::kcos::UndefinedClass>(
                foundation::core::str::toUtf16(superclass.str()));
        }
        return;
    }
    if (found->getClassInfo().isSealed()) {
        throw std::invalid_argument("Class '" + superclass.str() + "' is sealed.");
    }
    superclasses_.push_back(found);
}

void COSClass::addProperty(COSPropT* property) {
    properties_.emplace_back(property);
}

void COSClass::addMethod(COSMethodBase* method) {
    methods_.emplace_back(method);
}

const std::vector<std::unique_ptr<COSPropT>>& COSClass::getProperties() const noexcept {
    return properties_;
}

const std::vector<std::unique_ptr<COSMethodBase>>& COSClass::getMethods() const noexcept {
    return methods_;
}

const COSPropT* COSClass::findProperty(std::string_view name) const {
    for (const auto& property : properties_) {
        if (property->getName().view() == name) {
            return property.get();
        }
    }
    for (const COSClass* superclass : superclasses_) {
        if (const COSPropT* found = superclass->findProperty(name)) {
            return found;
        }
    }
    return nullptr;
}

COSMethodBase* COSClass::findMethod(std::string_view name) const {
    for (const auto& method : methods_) {
        if (method->getName().view() == name) {
            return method.get();
        }
    }
    for (const COSClass* superclass : superclasses_) {
        if (COSMethodBase* found = superclass->findMethod(name)) {
            return found;
        }
    }
    return nullptr;
}

bool COSClass::isSubclassOf(const COSClass& other) const {
    if (this == &other) {
        return true;
    }
    return std::any_of(superclasses_.begin(), superclasses_.end(),
                       [&](const COSClass* superclass) { return superclass->isSubclassOf(other); });
}

COSClass* COSClass::getClass(InternedName name) {
    if (!name) {
        return nullptr;
    }
    Registry& reg = registry();
    const InternedName target = COSDictionary::resolveAlias(name);
    const auto [packageName, shortName] = detail::splitClassName(target.view());
    COSPackage* package = nullptr;
    COSClassInfo* info = nullptr;
    {
        const std::lock_guard lock(reg.mutex);
        const auto p = reg.packages.find(packageName);
        if (p == reg.packages.end()) {
            return nullptr;
        }
        package = p->second.get();
        const auto e = package->impl_->entries.find(shortName);
        if (e == package->impl_->entries.end()) {
            return nullptr;
        }
        if (e->second.cls) {
            return e->second.cls.get();
        }
        info = e->second.info;
    }
    // Built without the lock: initializeClass may build its superclasses.
    auto cls = std::make_unique<COSClass>(*package, *info);
    info->initializeClass(cls.get(), COSClient::getClassClient());
    const std::lock_guard lock(reg.mutex);
    Entry& entry = package->impl_->entries[shortName];
    if (entry.info != info) {
        reg.retired.push_back(std::move(cls)); // replaced meanwhile; keep the old class usable
        return reg.retired.back().get();
    }
    if (!entry.cls) {
        entry.cls = std::move(cls);
    }
    return entry.cls.get();
}

// --- Packages and aliases ---------------------------------------------------

COSPackage::COSPackage(std::string name)
    : name_(std::move(name)), impl_(std::make_unique<Impl>()) {}

COSPackage::~COSPackage() = default;

void COSPackage::registerClassInfo(COSClassInfo* info, int, int) {
    if (info == nullptr) {
        throw std::invalid_argument("Class info is null.");
    }
    Registry& reg = registry();
    const std::lock_guard lock(reg.mutex);
    reg.infos.emplace_back(info);
    Entry& entry = impl_->entries[info->getName()];
    if (entry.cls) {
        reg.retired.push_back(std::move(entry.cls));
    }
    entry.info = info;
}

COSClassInfo* COSPackage::findClassInfo(std::string_view shortName) const {
    Registry& reg = registry();
    const std::lock_guard lock(reg.mutex);
    const auto it = impl_->entries.find(shortName);
    return it != impl_->entries.end() ? it->second.info : nullptr;
}

COSPackage* omGetNamespace(std::string_view name) {
    Registry& reg = registry();
    const std::lock_guard lock(reg.mutex);
    auto it = reg.packages.find(name);
    if (it == reg.packages.end()) {
        it =
            reg.packages.emplace(std::string(name), std::make_unique<COSPackage>(std::string(name)))
                .first;
    }
    return it->second.get();
}

void COSDictionary::registerBuiltinClassAlias(InternedName alias, InternedName target,
                                              bool replace) {
    if (!alias || !target) {
        throw std::invalid_argument("An alias and its class need names.");
    }
    Registry& reg = registry();
    const std::lock_guard lock(reg.mutex);
    const auto [it, inserted] = reg.aliases.emplace(alias, target);
    if (!inserted && !(it->second == target)) {
        if (!replace) {
            throw std::invalid_argument("'" + alias.str() + "' already names the class '" +
                                        it->second.str() + "'.");
        }
        it->second = target;
    }
}

InternedName COSDictionary::resolveAlias(InternedName name) {
    Registry& reg = registry();
    const std::lock_guard lock(reg.mutex);
    const auto it = reg.aliases.find(name);
    return it != reg.aliases.end() ? it->second : name;
}

} // namespace kcos

bool omGetKcosUsingUSM() noexcept {
    return kcos::gUsingUSM.load();
}

void omSetKcosUsingUSM(bool usingUSM) noexcept {
    kcos::gUsingUSM.store(usingUSM);
}
