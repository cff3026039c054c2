// The language's ways into the class-object system. Interpreter thread only.

#include <kcos/COSClass.hpp>
#include <kcos/Errors.hpp>
#include <kcos/Language.hpp>
#include <kcos/array.hpp>

#include "Registry.hpp"

#include <foundation/core/str/Utf.hpp>
#include <interpreter/Kdispatcher.hpp>

#include <algorithm>
#include <stdexcept>

namespace {

using foundation::core::except::Exception;
using foundation::core::str::toUtf16;

[[noreturn]] void undefinedClass(std::string_view name) {
    throw Exception<KORVEX::kcos::UndefinedClass>(toUtf16(name));
}

kcos::COSClass& requireClass(kcos::InternedName name) {
    kcos::COSClass* cls = kcos::COSClass::getClass(name);
    if (cls == nullptr) {
        undefinedClass(name.view());
    }
    return *cls;
}

// The class of an object array's elements; null for other arrays.
kcos::COSClass* classOfArray(const dvArray* array) {
    if (array == nullptr || dvGetClassID(array) != matrix::ClassID::Object) {
        return nullptr;
    }
    return kcos::COSClass::getClass(kcos::internal::makeInterned(dvGetClassName(array)));
}

std::vector<kcos::COSValue> toValues(int count, dvArray* const* arrays) {
    std::vector<kcos::COSValue> values;
    values.reserve(static_cast<std::size_t>(std::max(count, 0)));
    for (int i = 0; i < count; ++i) {
        values.emplace_back(boost::intrusive_ptr<dvArray>(arrays[i]));
    }
    return values;
}

void checkInputs(const kcos::COSMethodBase& method, const std::vector<kcos::COSValue>& inputs) {
    const kcos::COSMethodSignature& signature = method.getSignature();
    const auto& types = signature.getInputTypes();
    if (inputs.size() > types.size() && !signature.hasVariableInputs()) {
        matrix::detail::error_maxrhs();
    }
    for (std::size_t i = 0; i < inputs.size() && !types.empty(); ++i) {
        const kcos::COSDataTypePtr& type = types[std::min(i, types.size() - 1)];
        if (!type->accepts(inputs[i])) {
            throw Exception<KORVEX::kcos::InvalidInputType>(toUtf16(method.getName().str()),
                                                            static_cast<std::uint64_t>(i + 1),
                                                            toUtf16(type->getName().str()));
        }
    }
}

// Output i as an owning raw array: bare logical values become logical scalars.
dvArray* toArray(kcos::COSValue& value) {
    if (value.holdsBool()) {
        return matrix::to_korvex(dvCreateLogicalScalar(value.getBool()));
    }
    return matrix::to_korvex(value.releaseArray());
}

// Whether `method` is the constructor of `cls` or of one of its
// superclasses: named after the short name of the class that declares it.
bool isConstructor(const kcos::COSClass& cls, const kcos::COSMethodBase& method) {
    const auto& own = cls.getMethods();
    if (std::any_of(own.begin(), own.end(), [&](const auto& m) { return m.get() == &method; })) {
        return method.getName().view() ==
               kcos::detail::splitClassName(cls.getInternedName().view()).second;
    }
    const auto& superclasses = cls.getSuperclasses();
    return std::any_of(
        superclasses.begin(), superclasses.end(),
        [&](const kcos::COSClass* superclass) { return isConstructor(*superclass, method); });
}

// Checks and calls `method`; returns the outputs it produced. A constructor
// needs the object under construction, which only omConstructObjectWithClient
// hands over: called as a method it is prohibited.
std::vector<kcos::COSValue> invoke(kcos::COSMethodBase& method, const kcos::COSClass& cls,
                                   const kcos::COSClient* client, int numOutputs,
                                   std::vector<kcos::COSValue> inputs) {
    if (!client->mayAccess(method.getAccess()) || isConstructor(cls, method)) {
        throw Exception<KORVEX::kcos::MethodProhibited>(toUtf16(method.getName().str()),
                                                        toUtf16(cls.getInternedName().str()));
    }
    const kcos::COSMethodSignature& signature = method.getSignature();
    // The count sizes the output buffer below: an absurd one is refused first.
    if (numOutputs < 0 || static_cast<unsigned int>(numOutputs) > kcos::kMaxNumOutputs ||
        (static_cast<std::size_t>(numOutputs) > signature.getOutputTypes().size() &&
         !signature.hasVariableOutputs())) {
        matrix::detail::error_maxlhs();
    }
    checkInputs(method, inputs);
    std::vector<kcos::COSValue> outputs(static_cast<std::size_t>(std::max(numOutputs, 1)) + 1);
    int produced = numOutputs;
    method.invoke(client, produced, outputs.data(), static_cast<int>(inputs.size()), inputs.data());
    outputs.resize(
        static_cast<std::size_t>(std::clamp(produced, 0, static_cast<int>(outputs.size()))));
    return outputs;
}

kcos::COSMethodBase& requireMethod(const kcos::COSClass& cls, std::string_view name) {
    kcos::COSMethodBase* method = cls.findMethod(name);
    if (method == nullptr) {
        throw Exception<KORVEX::kcos::NoSuchMethod>(toUtf16(name),
                                                    toUtf16(cls.getInternedName().str()));
    }
    return *method;
}

// The object of a 1-by-1 object array and the property named `name`.
std::pair<kcos::COSInterface*, const kcos::COSPropT*> propertyOf(const dvArray* array,
                                                                 std::string_view name) {
    if (array == nullptr || dvGetClassID(array) != matrix::ClassID::Object ||
        dvGetNumberOfElements(array) != 1) {
        throw Exception<KORVEX::kcos::ScalarObjectRequired>();
    }
    kcos::COSInterface* object = dynamic_cast<kcos::COSInterface*>(dvGetObject(array, 0).get());
    if (object == nullptr || object->isDestroyed()) {
        throw Exception<KORVEX::kcos::InvalidHandle>();
    }
    const kcos::COSClass* cls = object->getObjectClass();
    const kcos::COSPropT* property = cls != nullptr ? cls->findProperty(name) : nullptr;
    if (property == nullptr) {
        throw Exception<KORVEX::kcos::NoSuchProperty>(toUtf16(name), toUtf16(object->className()));
    }
    return {object, property};
}

void collectNames(const kcos::COSClass& cls, const kcos::COSClient* client,
                  std::vector<std::string>& properties, std::vector<std::string>& methods) {
    auto addOnce = [](std::vector<std::string>& names, const std::string& name) {
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    };
    for (const auto& property : cls.getProperties()) {
        if (!property->isHidden() && client->mayAccess(property->getGetAccess())) {
            addOnce(properties, property->getName().str());
        }
    }
    for (const auto& method : cls.getMethods()) {
        if (method->isVisible() && client->mayAccess(method->getAccess())) {
            addOnce(methods, method->getName().str());
        }
    }
    for (const kcos::COSClass* superclass : cls.getSuperclasses()) {
        collectNames(*superclass, client, properties, methods);
    }
}

} // namespace

dvArray* omConstructObjectWithClient(kcos::InternedName className, int numArgs,
                                     dvArray* const* args, const kcos::COSClient* client) {
    kcos::COSClass& cls = requireClass(className);
    const std::string shortName = kcos::detail::splitClassName(cls.getInternedName().view()).second;
    kcos::COSMethodBase* constructor = nullptr;
    for (const auto& method : cls.getMethods()) {
        if (method->getName().view() == shortName) {
            constructor = method.get();
        }
    }
    if (constructor == nullptr && numArgs > 0) {
        matrix::detail::error_maxrhs();
    }
    kcos::COSValue result(kcos::array::create(kcos::detail::createObject(cls)));
    if (constructor != nullptr) {
        std::vector<kcos::COSValue> inputs = toValues(numArgs, args);
        checkInputs(*constructor, inputs);
        Kdispatcher::ExecutingFunction executing(Kdispatcher::getDispatcher(), className.str());
        int produced = 1;
        kcos::COSValue outputs[2];
        outputs[0] = std::move(result);
        constructor->invoke(client, produced, outputs, numArgs, inputs.data());
        result = std::move(outputs[0]);
    }
    if (!result.holdsArray()) {
        throw std::logic_error("The constructor of '" + className.str() + "' gave no object.");
    }
    return matrix::to_korvex(result.releaseArray());
}

void omCallMethod(kcos::InternedName className, kcos::InternedName methodName,
                  const kcos::COSClient* client, int numOutputs, dvArray** outputs, int numInputs,
                  dvArray* const* inputs, bool isStatic) {
    kcos::COSClass& cls = requireClass(className);
    kcos::COSMethodBase& method = requireMethod(cls, methodName.view());
    if (!isStatic) {
        const kcos::COSClass* actual = numInputs > 0 ? classOfArray(inputs[0]) : nullptr;
        if (actual == nullptr || !actual->isSubclassOf(cls)) {
            throw Exception<KORVEX::kcos::InvalidInputType>(
                toUtf16(methodName.str()), std::uint64_t{1}, toUtf16(className.str()));
        }
    }
    std::vector<kcos::COSValue> produced =
        invoke(method, cls, client, numOutputs, toValues(numInputs, inputs));
    if (static_cast<int>(produced.size()) < numOutputs) {
        matrix::detail::error_maxlhs();
    }
    for (int i = 0; i < numOutputs; ++i) {
        outputs[i] = toArray(produced[static_cast<std::size_t>(i)]);
    }
}

std::vector<matrix::unique_dvArray> omInvokeMethod(std::string_view methodName, int numOutputs,
                                                   const std::vector<const dvArray*>& inputs,
                                                   const kcos::COSClient* client) {
    kcos::COSClass* cls = inputs.empty() ? nullptr : classOfArray(inputs[0]);
    if (cls == nullptr) {
        throw Exception<KORVEX::kcos::InvalidInputType>(toUtf16(methodName), std::uint64_t{1},
                                                        std::u16string(u"object"));
    }
    std::vector<dvArray*> raw;
    for (const dvArray* input : inputs) {
        raw.push_back(const_cast<dvArray*>(input)); // inputs are only read
    }
    std::vector<kcos::COSValue> produced =
        invoke(requireMethod(*cls, methodName), *cls, client, numOutputs,
               toValues(static_cast<int>(raw.size()), raw.data()));
    std::vector<matrix::unique_dvArray> outputs;
    for (kcos::COSValue& value : produced) {
        outputs.emplace_back(toArray(value));
    }
    return outputs;
}

matrix::unique_dvArray omGetProperty(const dvArray* object, std::string_view name,
                                     const kcos::COSClient* client) {
    const auto [target, property] = propertyOf(object, name);
    if (!client->mayAccess(property->getGetAccess())) {
        throw Exception<KORVEX::kcos::GetProhibited>(toUtf16(name), toUtf16(target->className()));
    }
    kcos::COSValue value;
    property->getValue(&value, target);
    if (value.holdsBool()) {
        return dvCreateLogicalScalar(value.getBool());
    }
    dvArray* raw = matrix::to_korvex(value.releaseArray());
    if (raw == nullptr) {
        return matrix::detail::do_create_numeric({0, 0}, matrix::ClassID::Double);
    }
    matrix::unique_dvArray copy = matrix::detail::do_shared_copy(raw);
    property->releaseValue(target, raw);
    return copy;
}

void omSetProperty(dvArray* object, std::string_view name, const dvArray* value,
                   const kcos::COSClient* client) {
    const auto [target, property] = propertyOf(object, name);
    if (!client->mayAccess(property->getSetAccess())) {
        throw Exception<KORVEX::kcos::SetProhibited>(toUtf16(name), toUtf16(target->className()));
    }
    property->setValue(target, kcos::COSValue(matrix::detail::do_shared_copy(value)));
}

std::vector<std::string> omGetPropertyNames(kcos::InternedName className,
                                            const kcos::COSClient* client) {
    std::vector<std::string> properties;
    std::vector<std::string> methods;
    collectNames(requireClass(className), client, properties, methods);
    return properties;
}

std::vector<std::string> omGetMethodNames(kcos::InternedName className,
                                          const kcos::COSClient* client) {
    std::vector<std::string> properties;
    std::vector<std::string> methods;
    collectNames(requireClass(className), client, properties, methods);
    return methods;
}

void omDeleteObjects(const dvArray* objects) {
    const std::size_t count = dvGetNumberOfElements(objects);
    for (std::size_t i = 0; i < count; ++i) {
        if (kcos::COSInterfacePtr object = omGetArrayElement(objects, i)) {
            object->destroy();
        }
    }
}

kcos::SavedArray omSaveObjects(const dvArray* objects) {
    kcos::SavedArray saved{dvGetClassName(objects), dvGetDimensions(objects), {}};
    const std::size_t count = dvGetNumberOfElements(objects);
    for (std::size_t i = 0; i < count; ++i) {
        kcos::COSInterfacePtr object = omGetArrayElement(objects, i);
        kcos::SavedObject element;
        if (object) {
            kcos::COSClass* cls = object->getObjectClass();
            if (cls == nullptr) {
                throw std::invalid_argument("Only objects of a class can be saved.");
            }
            element.className = cls->getInternedName().str();
            kcos::COSDataTypePtr type;
            if (!cls->getClassInfo().customSave(object, element.value, type)) {
                element.className.clear();
            }
        }
        saved.elements.push_back(std::move(element));
    }
    return saved;
}

matrix::unique_dvArray omLoadObjects(const kcos::SavedArray& saved) {
    matrix::unique_dvArray array =
        kcos::array::create(saved.dims, kcos::internal::makeInterned(saved.className));
    for (std::size_t i = 0; i < saved.elements.size(); ++i) {
        const kcos::SavedObject& element = saved.elements[i];
        if (element.className.empty()) {
            continue;
        }
        kcos::COSClass& cls = requireClass(kcos::internal::makeInterned(element.className));
        std::shared_ptr<kcos::COSInterface> object = kcos::detail::createObject(cls);
        const kcos::COSInterfacePtr handle(object.get(), kcos::COSReferenceType::Strong);
        if (!cls.getClassInfo().customLoad(handle, element.value)) {
            if (const dvArray* values = element.value.getArray();
                values != nullptr && dvGetClassID(values) == matrix::ClassID::Struct) {
                for (const std::string& field : dvGetFieldNames(values)) {
                    object->setStoredValue(kcos::internal::makeInterned(field),
                                           boost::intrusive_ptr<dvArray>(
                                               matrix::to_korvex(matrix::detail::do_shared_copy(
                                                   dvGetField(values, 0, field))),
                                               false));
                }
            }
        }
        cls.getClassInfo().instanceLoaded(object.get());
        omSetArrayElement(array.get(), i, handle);
    }
    return array;
}
