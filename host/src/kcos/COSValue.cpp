#include <kcos/COSValue.hpp>
#include <kcos/Enumeration.hpp>

#include <stdexcept>

namespace kcos {

COSValue::COSValue(matrix::unique_dvArray array) noexcept {
    setArray(std::move(array));
}

COSValue::COSValue(boost::intrusive_ptr<dvArray> array) noexcept {
    if (array) {
        value_ = std::move(array);
    }
}

COSValue COSValue::adopt(dvArray* array) noexcept {
    COSValue value;
    value.setRawArray(array);
    return value;
}

bool COSValue::holdsArray() const noexcept {
    return std::holds_alternative<boost::intrusive_ptr<dvArray>>(value_);
}
bool COSValue::holdsBool() const noexcept {
    return std::holds_alternative<bool>(value_);
}

dvArray* COSValue::getArray() const noexcept {
    const auto* array = std::get_if<boost::intrusive_ptr<dvArray>>(&value_);
    return array != nullptr ? array->get() : nullptr;
}

bool COSValue::getBool() const {
    if (const bool* value = std::get_if<bool>(&value_)) {
        return *value;
    }
    throw std::logic_error("Value is not a logical value.");
}

void COSValue::setArray(matrix::unique_dvArray array) noexcept {
    setRawArray(matrix::to_korvex(std::move(array)));
}

void COSValue::setRawArray(dvArray* array) noexcept {
    if (array == nullptr) {
        value_ = std::monostate();
    } else {
        value_ = boost::intrusive_ptr<dvArray>(array, false);
    }
}

void COSValue::setBool(bool value) noexcept {
    value_ = value;
}

void COSValue::reset() noexcept {
    value_ = std::monostate();
}

matrix::unique_dvArray COSValue::releaseArray() noexcept {
    auto* array = std::get_if<boost::intrusive_ptr<dvArray>>(&value_);
    if (array == nullptr) {
        return {};
    }
    matrix::unique_dvArray owned(array->detach());
    value_ = std::monostate();
    return owned;
}

const COSClient* COSClient::getClassClient() noexcept {
    static constexpr COSClient client(access::Private);
    return &client;
}

ENoElements::ENoElements() : std::out_of_range("No more elements.") {}

} // namespace kcos

const kcos::COSClient* COSGetPublicClient() noexcept {
    static constexpr kcos::COSClient client(kcos::access::Public);
    return &client;
}
