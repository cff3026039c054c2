#include <kcos/COSClass.hpp>
#include <kcos/COSInterface.hpp>

#include "Registry.hpp"

#include <algorithm>

namespace kcos {

COSInterface::COSInterface(std::string className)
    : className_(std::move(className)), root_(std::make_shared<matrix::RootRecord>()) {}

COSInterface::COSInterface(COSClass& cls)
    : className_(cls.getInternedName().str()), class_(&cls),
      root_(std::make_shared<matrix::RootRecord>()) {}

COSInterface::~COSInterface() {
    releaseInstanceData();
}

void* COSInterface::getData(InternedName classKey) const noexcept {
    for (const auto& [key, data] : data_) {
        if (key == classKey) {
            return data;
        }
    }
    return nullptr;
}

void COSInterface::setData(InternedName classKey, void* data) {
    for (auto& entry : data_) {
        if (entry.first == classKey) {
            entry.second = data;
            return;
        }
    }
    data_.emplace_back(classKey, data);
}

void COSInterface::destroy() noexcept {
    if (!destroyed_) {
        destroyed_ = true;
        if (class_ != nullptr) {
            class_->countDeletion();
        }
    }
    releaseInstanceData();
}

// Each piece of instance data goes back to the info of the object's class,
// once; errors of the class's release code are dropped (called from the
// destructor too).
void COSInterface::releaseInstanceData() noexcept {
    auto data = std::move(data_);
    data_.clear();
    for (const auto& [key, pointer] : data) {
        if (pointer == nullptr || class_ == nullptr) {
            continue;
        }
        try {
            class_->getClassInfo().destroyInstanceData(this, pointer);
        } catch (...) {
        }
    }
}

boost::intrusive_ptr<dvArray> COSInterface::getStoredValue(InternedName property) const {
    for (const auto& [key, value] : stored_) {
        if (key == property) {
            return value;
        }
    }
    return nullptr;
}

void COSInterface::setStoredValue(InternedName property, boost::intrusive_ptr<dvArray> value) {
    for (auto& entry : stored_) {
        if (entry.first == property) {
            entry.second = std::move(value);
            return;
        }
    }
    stored_.emplace_back(property, std::move(value));
}

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

std::shared_ptr<COSInterface> COSInterfacePtr::lock() const noexcept {
    return type_ == COSReferenceType::Weak ? weak_.lock() : strong_;
}

namespace detail {

std::shared_ptr<COSInterface> createObject(COSClass& cls) {
    auto object = std::make_shared<COSInterface>(cls);
    COSClassInfo& info = cls.getClassInfo();
    if (info.hasNativeInstanceData()) {
        if (void* data = info.createInstanceData()) {
            object->setData(cls.getInternedName(), data);
        }
    }
    return object;
}

} // namespace detail

} // namespace kcos

matrix::RootRecordPtr omGetRootRecord(const kcos::COSInterface* object) {
    return object != nullptr ? object->getRootRecord() : nullptr;
}

bool kcosDoesArrayContainLegacyObjects(const dvArray*) noexcept {
    return false;
}
