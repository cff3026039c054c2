#pragma once

#include <matrix/dvArray.hpp>

#include <boost/intrusive_ptr.hpp>

#include <utility>

namespace foundation::korvexdata {

// A value of the language held by counted reference; default-constructed it
// holds nothing. Copies share the array. Any thread.
class Array {
public:
    Array() = default;
    explicit Array(boost::intrusive_ptr<dvArray> array) : array_(std::move(array)) {}

    bool isEmpty() const noexcept { return !array_; }
    const boost::intrusive_ptr<dvArray>& get() const noexcept { return array_; }

private:
    boost::intrusive_ptr<dvArray> array_;
};

} // namespace foundation::korvexdata
