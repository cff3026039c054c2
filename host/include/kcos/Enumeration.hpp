#pragma once

// Enumerations: a cursor over elements that the class-object system walks
// (objects inside a property, arrays an object owns). One thread at a time.

#include <host/Export.hpp>

#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace kcos {

// Asking an enumeration for an element past its end.
class QZHOST_API ENoElements : public std::out_of_range {
public:
    ENoElements();
};

template <class T>
class EnumerationUtil {
public:
    virtual ~EnumerationUtil() = default;
    virtual bool hasMoreElements() const = 0;
    // The next element; throws ENoElements past the end.
    virtual T nextElement() = 0;
};

// Owns its EnumerationUtil; an empty enumeration has no elements.
template <class T>
class Enumeration {
public:
    Enumeration() = default;
    explicit Enumeration(std::unique_ptr<EnumerationUtil<T>> util) : util_(std::move(util)) {}

    bool hasMoreElements() const { return util_ && util_->hasMoreElements(); }
    T nextElement() {
        if (!util_) {
            throw ENoElements();
        }
        return util_->nextElement();
    }
    // The remaining elements, in order.
    std::vector<T> drain() {
        std::vector<T> out;
        while (hasMoreElements()) {
            out.push_back(nextElement());
        }
        return out;
    }

private:
    std::unique_ptr<EnumerationUtil<T>> util_;
};

} // namespace kcos
