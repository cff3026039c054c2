#include "BuiltinMethod.hpp"

#include "../kcos/Registry.hpp"

#include <builtins/HostClasses.hpp>
#include <foundation/core/str/Utf.hpp>

#include <mutex>

namespace hostclasses {

BuiltinMethod::BuiltinMethod(const char* name, bool isStatic, Body body)
    : kcos::COSMethodBase(kcos::internal::makeInterned(name), kcos::access::Public, nullptr),
      body_(std::move(body)) {
    setStatic(isStatic);
    const auto any = kcos::COSTypeRepository::getType(kcos::internal::makeInterned("any"));
    getSignature().addInputType(any);
    getSignature().setVariableInputs();
    getSignature().addOutputType(any);
    getSignature().setVariableOutputs();
}

void BuiltinMethod::invoke(const kcos::COSClient*, int& numOutputs, kcos::COSValue* outputs,
                           int numInputs, const kcos::COSValue* inputs) {
    body_(numOutputs, outputs,
          std::span<const kcos::COSValue>(inputs, static_cast<std::size_t>(numInputs)));
}

void addMethod(kcos::COSClass& cls, const char* name, bool isStatic, BuiltinMethod::Body body) {
    auto method = std::make_unique<BuiltinMethod>(name, isStatic, std::move(body));
    cls.addMethod(method.get());
    method.release();
}

void addProperty(kcos::COSClass& cls, kcos::COSPropT* created) {
    std::unique_ptr<kcos::COSPropT> property(created);
    cls.addProperty(property.get());
    property.release();
}

matrix::unique_dvArray charRow(const std::string& text) {
    return matrix::create(text.data(), text.size());
}

std::string textOf(const dvArray* array) {
    return foundation::core::str::toUtf8(dvGetChars(array));
}

bool isCharRow(const dvArray* array) {
    if (array == nullptr || dvGetClassID(array) != matrix::ClassID::Char) {
        return false;
    }
    const matrix::Dimensions& dims = dvGetDimensions(array);
    return dims.size() == 2 && (dims[0] == 1 || (dims[0] == 0 && dims[1] == 0));
}

bool isDoubleScalar(const dvArray* array) {
    return array != nullptr && dvIsRealDoubleScalar(array);
}

matrix::unique_dvArray newObject(kcos::COSClass& cls) {
    return kcos::array::create(kcos::detail::createObject(cls));
}

namespace {

// A class without members of its own.
class PlainClassInfo : public kcos::COSClassInfo {
public:
    PlainClassInfo(const char* name, bool heterogeneous)
        : name_(name), heterogeneous_(heterogeneous) {}
    const char* getName() const override { return name_; }
    bool allowsHeterogeneousArrays() const override { return heterogeneous_; }

private:
    const char* name_;
    bool heterogeneous_;
};

void registerPlain(const char* package, const char* name, bool heterogeneous) {
    registerInfo(package,
                 std::unique_ptr<kcos::COSClassInfo>(new PlainClassInfo(name, heterogeneous)));
}

} // namespace

void registerInfo(const char* package, std::unique_ptr<kcos::COSClassInfo> info) {
    kcos::omGetNamespace(package)->registerClassInfo(info.get(), 0, 0);
    info.release();
}

void registerHostClasses() {
    static std::once_flag once;
    std::call_once(once, [] {
        registerPlain("korvex.mixin", "Heterogeneous", true);
        registerPlain("", "ParallelException", false);
        registerDateTime();
        registerDuration();
        registerFutureDisplayer();
    });
}

} // namespace hostclasses
