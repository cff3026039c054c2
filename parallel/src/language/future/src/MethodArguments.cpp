#include "MethodArguments.hpp"

#include <parallel/language/future/FutureErrors.hpp>

#include <Veldspire/String/String.hpp>
#include <fl/i18n/MessageCatalog.hpp>
#include <foundation/core/str/Utf.hpp>

#include <cctype>
#include <cmath>
#include <limits>

namespace parallel::language::future::binding {

namespace {

std::u16string utf16(std::string_view text) {
    return std::u16string(text.begin(), text.end());
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// The text of a char array of any shape or of a string scalar that is not
// missing; nothing for any other value (null included).
std::optional<std::u16string_view> textOf(const dvArray* array) {
    if (array == nullptr) {
        return std::nullopt;
    }
    if (dvGetClassID(array) == matrix::ClassID::Char) {
        return dvGetChars(array);
    }
    if (Veldspire::String::isString(array) && dvGetNumberOfElements(array) == 1) {
        if (const Veldspire::String::Element& element = Veldspire::String::getString(array)) {
            return std::u16string_view(*element);
        }
    }
    return std::nullopt;
}

// The text of `array` as the caller wrote it; empty when it is no text.
std::u16string textAsPassed(const dvArray* array) {
    return std::u16string(textOf(array).value_or(std::u16string_view()));
}

} // namespace

std::optional<std::string> asciiText(const dvArray* array) {
    const std::optional<std::u16string_view> wide = textOf(array);
    if (!wide) {
        return std::nullopt;
    }
    std::string text;
    for (const char16_t c : *wide) {
        if (c >= 128) {
            return std::nullopt;
        }
        text.push_back(static_cast<char>(c));
    }
    return text;
}

std::string parseClassName(const dvArray* name) {
    if (Veldspire::String::isString(name) && dvGetNumberOfElements(name) == 1) {
        const Veldspire::String::Element& element = Veldspire::String::getString(name);
        if (!element) {
            throw errors::MissingNotSupported();
        }
        return foundation::core::str::toUtf8(*element);
    }
    if (name == nullptr || dvGetClassID(name) != matrix::ClassID::Char) {
        throw errors::MustBeStringScalarOrCharacterVector();
    }
    const matrix::Dimensions& dims = dvGetDimensions(name);
    const bool row = dims.size() == 2 && dims[0] == 1;
    const bool empty = dims.size() == 2 && dims[0] == 0 && dims[1] == 0;
    if (!row && !empty) {
        throw errors::MustBeStringScalarOrCharacterVector();
    }
    return foundation::core::str::toUtf8(std::u16string(dvGetChars(name)));
}

bool matchesOption(const dvArray* name, std::string_view option) {
    const std::optional<std::string> text = asciiText(name);
    return text && text->size() <= option.size() &&
           equalsIgnoringCase(*text, option.substr(0, text->size()));
}

bool isValidTimeout(const dvArray* timeout) {
    if (timeout == nullptr || !dvIsRealDoubleScalar(timeout)) {
        return false;
    }
    const double seconds = dvGetDoubles(timeout)[0];
    return !std::isnan(seconds) && seconds >= 0.0;
}

Seconds timeoutOf(const dvArray* timeout) {
    return Seconds(dvGetDoubles(timeout)[0]);
}

Seconds noTimeout() {
    return Seconds(std::numeric_limits<double>::max());
}

std::optional<bool> singleLogical(const dvArray* value) {
    if (value == nullptr || dvGetClassID(value) != matrix::ClassID::Logical ||
        dvGetNumberOfElements(value) != 1) {
        return std::nullopt;
    }
    return dvGetLogicals(value)[0] != 0;
}

FutureState parseStateWord(const dvArray* word) {
    const std::optional<std::string> text = asciiText(word);
    if (!text) {
        throw errors::FailedToInterpretState();
    }
    if (equalsIgnoringCase(*text, "running")) {
        return FutureState::Running;
    }
    if (equalsIgnoringCase(*text, "finished")) {
        return FutureState::Finished;
    }
    for (const char* other : {"pending", "queued", "failed", "unavailable"}) {
        if (equalsIgnoringCase(*text, other)) {
            throw errors::InvalidStateToWait(textAsPassed(word),
                                             std::u16string(u"running finished"));
        }
    }
    throw errors::FailedToInterpretState();
}

unsigned int parseNumOutputs(const dvArray* number) {
    if (number == nullptr || !dvIsRealDoubleScalar(number)) {
        throw errors::CreateFutureInvalidNumOutputs();
    }
    const double n = dvGetDoubles(number)[0];
    if (n < 0.0) {
        throw errors::CreateFutureNegativeNumOutputArgs();
    }
    std::size_t k = 0;
    try {
        k = dvCheckIndex(n);
    } catch (const foundation::core::except::IMsgIDException&) {
        throw errors::CreateFutureInvalidNumOutputs(); // a fraction or NaN
    }
    if (k > std::numeric_limits<unsigned int>::max()) {
        throw errors::CreateFutureInvalidNumOutputs();
    }
    return static_cast<unsigned int>(k);
}

void raiseMissingValue(const dvArray* name) {
    const std::string text = asciiText(name).value_or("");
    if (text.empty()) {
        throw errors::ParamMustBeChar();
    }
    throw errors::ParamMissingValue(utf16(text));
}

bool parsePassFuture(const dvArray* name, const dvArray* value) {
    constexpr std::string_view option = "PassFuture";
    const bool matches = matchesOption(name, option);
    if (const std::optional<bool> flag = singleLogical(value); matches && flag) {
        return *flag;
    }
    if (asciiText(name).value_or("").empty()) {
        throw errors::ParamMustBeChar();
    }
    if (!matches) {
        const fl::i18n::QzLocale& locale = fl::i18n::QzLocale::global();
        const std::u16string thisFunction = fl::i18n::MessageCatalog::get_message(
            {"KORVEX:InputParser", "THIS_FUNCTION_LITERAL"}, {}, locale);
        const std::u16string validParameters = fl::i18n::MessageCatalog::get_message(
            {"KORVEX:InputParser", "ValidParameters"}, {thisFunction}, locale);
        throw errors::UnmatchedParameter(textAsPassed(name), validParameters);
    }
    throw errors::InvalidType(utf16(option), std::u16string(u"logical"),
                              utf16(dvGetClassName(value)));
}

} // namespace parallel::language::future::binding
