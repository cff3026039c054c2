// Memory root records: the parent chain that accounts an array's memory to an
// owner.

#include "Storage.hpp"

#include <stdexcept>

namespace matrix {

std::shared_ptr<RootRecord> RootRecord::getParent() const {
    std::lock_guard lock(mutex_);
    return parent_;
}

void RootRecord::setParent(std::shared_ptr<RootRecord> parent) {
    if (parent && parent->isAccountedTo(this)) {
        throw std::invalid_argument("Root record cannot be its own ancestor.");
    }
    std::lock_guard lock(mutex_);
    parent_ = std::move(parent);
}

bool RootRecord::isAccountedTo(const RootRecord* owner) const {
    if (!owner) {
        return false;
    }
    if (owner == this) {
        return true;
    }
    for (auto record = getParent(); record; record = record->getParent()) {
        if (record.get() == owner) {
            return true;
        }
    }
    return false;
}

} // namespace matrix

matrix::RootRecordPtr matrix::detail::ArrayAccess::root(const dvArray* array) {
    RootRecordPtr current = array->root_.load(std::memory_order_acquire);
    if (current) {
        return current;
    }
    auto fresh = std::make_shared<RootRecord>();
    // A thread that lost the race takes the winner's record.
    if (array->root_.compare_exchange_strong(current, fresh, std::memory_order_acq_rel,
                                             std::memory_order_acquire)) {
        return fresh;
    }
    return current;
}

matrix::RootRecordPtr dvGetRootRecordForArray(const dvArray* array) {
    return array ? matrix::detail::ArrayAccess::root(array) : nullptr;
}

void dvSetParentRoot(const matrix::RootRecordPtr& child, const matrix::RootRecordPtr& parent) {
    if (!child) {
        throw std::invalid_argument("Root record is null.");
    }
    child->setParent(parent);
}
