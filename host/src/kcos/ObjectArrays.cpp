// Object arrays and arrays held as object properties.

#include <kcos/COSClass.hpp>
#include <kcos/Errors.hpp>
#include <kcos/array.hpp>

#include <foundation/core/str/Utf.hpp>

#include <stdexcept>
#include <typeinfo>

namespace kcos {

void property_array_deleter::operator()(dvArray* array) const noexcept {
    matrix::destroyArray(array);
}

matrix::unique_dvArray array::create(std::shared_ptr<matrix::dvObject> object) {
    if (!object) {
        throw std::invalid_argument("Object is null.");
    }
    auto result = matrix::createObjectArray({1, 1}, object->className());
    dvSetObject(result.get(), 0, std::move(object));
    return result;
}

matrix::unique_dvArray array::create(const matrix::Dimensions& dims, InternedName className) {
    return matrix::createObjectArray(dims, className.str());
}

matrix::unique_dvArray array::create(std::size_t rows, std::size_t columns,
                                     InternedName className) {
    return create(matrix::Dimensions{rows, columns}, className);
}

} // namespace kcos

dvArray* omCreateKCOSArray(kcos::InternedName className, const matrix::Dimensions& dims) {
    return matrix::to_korvex(kcos::array::create(dims, className));
}

dvArray* omCreateKCOSScalar(const kcos::COSInterfacePtr& object) {
    std::shared_ptr<kcos::COSInterface> owned = object.lock();
    if (!owned) {
        throw std::invalid_argument("Object is null.");
    }
    return matrix::to_korvex(kcos::array::create(std::move(owned)));
}

dvArray* omCreateKCOSEmpty(kcos::InternedName className) {
    return omCreateKCOSArray(className, {0, 0});
}

kcos::COSInterfacePtr omGetArrayElement(const dvArray* array, std::size_t index) {
    auto* object = dynamic_cast<kcos::COSInterface*>(dvGetObject(array, index).get());
    return kcos::COSInterfacePtr(object, kcos::COSReferenceType::Strong);
}

kcos::COSInterface* omGetLiveArrayElement(dvArray* array, std::size_t index) {
    return dynamic_cast<kcos::COSInterface*>(dvGetObject(array, index).get());
}

kcos::COSInterface* omLiveObjectOf(matrix::dvObject* element) noexcept {
    // Class objects are never subclassed: the exact type tells them from
    // error objects without a cast through the hierarchy.
    return element != nullptr && typeid(*element) == typeid(kcos::COSInterface)
               ? static_cast<kcos::COSInterface*>(element)
               : nullptr;
}

void omSetArrayElement(dvArray* array, std::size_t index, const kcos::COSInterfacePtr& object) {
    dvSetObject(array, index, object.lock());
}

void omSetClassOfHeterogeneousArray(dvArray* array, kcos::InternedName className) {
    if (kcos::COSClass::getClass(className) == nullptr) {
        throw foundation::core::except::Exception<KORVEX::kcos::UndefinedClass>(
            foundation::core::str::toUtf16(className.str()));
    }
    matrix::detail::setObjectArrayClass(array, className.str());
}

kcos::COSInterfacePtr omWrapData(kcos::COSClass* cls, void* data) {
    if (cls == nullptr) {
        throw std::invalid_argument("Class is null.");
    }
    auto object = std::make_shared<kcos::COSInterface>(*cls);
    object->setData(cls->getInternedName(), data);
    return kcos::COSInterfacePtr(object.get(), kcos::COSReferenceType::Strong);
}

dvArray* omPrepareArrayForPropertyContainment(dvArray* array) {
    return array;
}

dvArray* omCopyArrayForPropertyContainment(const dvArray* array) {
    return matrix::to_korvex(matrix::detail::do_shared_copy(array));
}
