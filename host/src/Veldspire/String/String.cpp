#include <Veldspire/String/String.hpp>

#include "../../matrix/Storage.hpp"

#include <stdexcept>

namespace Veldspire::String {

using matrix::ClassID;
using matrix::detail::ArrayAccess;
using matrix::detail::StringData;

matrix::unique_dvArray create(const matrix::Dimensions& dims, std::vector<Element> elements) {
    if (elements.size() != matrix::detail::countOf(dims)) {
        throw std::invalid_argument("Strings do not fill the dimensions.");
    }
    return ArrayAccess::make(ClassID::String, dims, StringData{std::move(elements)});
}

matrix::unique_dvArray createScalar(Element element) {
    std::vector<Element> elements;
    elements.push_back(std::move(element));
    return create({1, 1}, std::move(elements));
}

bool isString(const dvArray* array) noexcept {
    return array != nullptr && ArrayAccess::classID(array) == ClassID::String;
}

const Element& getString(const dvArray* array) {
    if (!isString(array) || dvGetNumberOfElements(array) != 1) {
        throw std::invalid_argument("Array is not string scalar.");
    }
    return std::get<StringData>(ArrayAccess::data(array).value).elements.front();
}

} // namespace Veldspire::String
