#include <kcos/COSInterface.hpp>

namespace kcos {

COSInterface::COSInterface(std::string className)
    : className_(std::move(className)), root_(std::make_shared<matrix::RootRecord>()) {}

COSInterface::~COSInterface() = default;

COSInterfacePtr::COSInterfacePtr(COSInterface* object, COSReferenceType type) : type_(type) {
    if (object == nullptr) {
        return;
    }
    // Objects are owned through std::shared_ptr; a stack object cannot be handled.
    std::shared_ptr<COSInterface> owned = object->shared_from_this();
    if (type == COSReferenceType::Weak) {
        weak_ = owned;
    } else {
        strong_ = std::move(owned);
    }
}

COSInterface* COSInterfacePtr::get() const noexcept {
    if (type_ == COSReferenceType::Weak) {
        return weak_.lock().get();
    }
    return strong_.get();
}

} // namespace kcos

matrix::RootRecordPtr omGetRootRecord(const kcos::COSInterface* object) {
    return object != nullptr ? object->getRootRecord() : nullptr;
}

bool kcosDoesArrayContainLegacyObjects(const dvArray*) noexcept {
    return false;
}
