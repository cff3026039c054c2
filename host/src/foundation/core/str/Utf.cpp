#include <foundation/core/str/Utf.hpp>

namespace foundation::core::str {

namespace {

constexpr char32_t replacement = 0xFFFD;

bool isSurrogate(char32_t c) {
    return c >= 0xD800 && c <= 0xDFFF;
}
bool isContinuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}

// Decodes one code point at `pos` and advances `pos` past it. An ill-formed
// sequence yields U+FFFD and skips its maximal valid prefix (at least one byte).
char32_t decodeUtf8(std::string_view in, std::size_t& pos) {
    const auto lead = static_cast<unsigned char>(in[pos++]);
    if (lead < 0x80) {
        return lead;
    }
    std::size_t length;
    char32_t cp;
    char32_t minimum;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, cp = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, cp = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, cp = lead & 0x07, minimum = 0x10000;
    } else {
        return replacement;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (pos >= in.size() || !isContinuation(static_cast<unsigned char>(in[pos]))) {
            return replacement;
        }
        cp = (cp << 6) | (static_cast<unsigned char>(in[pos++]) & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || isSurrogate(cp)) {
        return replacement;
    }
    return cp;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

} // namespace

std::u16string toUtf16(std::string_view utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    for (std::size_t pos = 0; pos < utf8.size();) {
        const char32_t cp = decodeUtf8(utf8, pos);
        if (cp < 0x10000) {
            out += static_cast<char16_t>(cp);
        } else {
            out += static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
            out += static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
        }
    }
    return out;
}

std::string toUtf8(std::u16string_view utf16) {
    std::string out;
    out.reserve(utf16.size());
    for (std::size_t i = 0; i < utf16.size(); ++i) {
        char32_t cp = utf16[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 &&
            utf16[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (utf16[++i] - 0xDC00);
        } else if (isSurrogate(cp)) {
            cp = replacement;
        }
        appendUtf8(out, cp);
    }
    return out;
}

} // namespace foundation::core::str
