// The language class "parallel.Future": module initialisation, the class
// info that describes the class to the host, and the instance data of its
// objects (one heap cell holding a std::shared_ptr<FutureBase>).

#include <parallel/language/future/Module.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include "ClassBinding.hpp"
#include "FutureClassNames.hpp"
#include "FutureRelease.hpp"

#include <interpreter/Kdispatcher.hpp>
#include <kcos/COSClass.hpp>

#include <array>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace parallel::language::future {

namespace binding {

FutureCell* findFutureCell(kcos::COSInterface* object, kcos::InternedName classKey) noexcept {
    if (object == nullptr) {
        return nullptr;
    }
    return static_cast<FutureCell*>(object->getData(classKey));
}

std::shared_ptr<FutureBase> futureOf(kcos::COSInterface* object, kcos::InternedName classKey) {
    if (FutureCell* cell = findFutureCell(object, classKey); cell != nullptr && *cell) {
        return *cell;
    }
    return std::make_shared<UnavailableFuture>("parallel.Future");
}

const dvArray* arrayOf(const kcos::COSValue& value) {
    const dvArray* array = value.getArray();
    if (array == nullptr) {
        throw std::invalid_argument("The input holds no array.");
    }
    return array;
}

matrix::unique_dvArray charRow(std::string_view text) {
    return matrix::create(text.data(), text.size());
}

} // namespace binding

namespace {

constexpr char16_t kDescription[] = u"Unified Future 2.0";

class FutureCosClassInfo : public kcos::COSClassInfo {
public:
    const char* getName() const override { return "Future"; }
    const char16_t* getDescription() const override { return kDescription; }
    const char16_t* getDetailedDescription() const override { return kDescription; }

    void initializeClass(kcos::COSClass* cls, const kcos::COSClient*) override {
        cls->addSuperclass(names::intern("korvex.mixin.Heterogeneous"), 0, 0, true);
        binding::addProperties(*cls);
        binding::addMethods(*cls);
    }

    void* createInstanceData() override {
        return new binding::FutureCell(std::make_shared<UnavailableFuture>("parallel.Future"));
    }
    void destroyInstanceData(kcos::COSInterface*, void* data) override {
        const std::unique_ptr<binding::FutureCell> cell(static_cast<binding::FutureCell*>(data));
        detail::releaseFuture(std::move(*cell));
    }
    void instanceDataHook(kcos::COSInterface*, void*) override {}

    bool isHandleClass() const override { return true; }
    bool isSealed() const override { return false; }
    bool allowsHeterogeneousArrays() const override { return true; }
    bool hasNativeInstanceData() const override { return true; }

    // Futures cannot be saved: warn, then save as any object (all properties
    // are computed, so nothing of the future is kept; a loaded object holds
    // an unavailable future).
    bool customSave(kcos::COSInterfacePtr object, kcos::COSValue& value,
                    kcos::COSDataTypePtr& type) override {
        if (!object) {
            throw std::invalid_argument("No object to save.");
        }
        // An object's class name is its class's full name.
        dvArray* argument = matrix::to_korvex(binding::charRow(object->className()));
        const matrix::unique_dvArray release(argument);
        inCallFcn("parallel.internal.warnOnceCannotSave", 0, nullptr, 1, &argument);
        return kcos::COSClassInfo::customSave(std::move(object), value, type);
    }
};

void registerFutureClasses(kcos::COSPackage* package) {
    std::unique_ptr<FutureCosClassInfo> info(new FutureCosClassInfo);
    package->registerClassInfo(info.get(), 0, 2);
    info.release(); // the package owns it
    const std::string prefix = package->getPackageName();
    const kcos::InternedName base = names::intern(prefix + "." + "Future");
    for (const char* alias :
         std::array{"FevalFuture", "FevalOnAllFuture", "AfterEachFuture", "AfterAllFuture"}) {
        kcos::COSDictionary::registerBuiltinClassAlias(names::intern(prefix + "." + alias), base,
                                                       false);
    }
}

void registerInPackageParallel() {
    registerFutureClasses(kcos::omGetNamespace("parallel"));
}

std::once_flag gRegistered;

} // namespace

} // namespace parallel::language::future

extern "C" void KVInitialize_libqzparallellanguagefuture() {
    using namespace parallel::language::future;
    if (omGetKcosUsingUSM()) {
        registerInPackageParallel();
        return;
    }
    // An exception leaves the flag unset, so a later call tries again.
    std::call_once(gRegistered, registerInPackageParallel);
}

extern "C" void KVTerminate_libqzparallellanguagefuture() {}
