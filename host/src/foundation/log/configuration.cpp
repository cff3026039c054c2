#include <foundation/log/configuration.hpp>

#include "ChannelRegistry.hpp"

#include <foundation/log/diagnostic_logger.hpp>

#include <boost/algorithm/string/predicate.hpp>

#include <charconv>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace foundation::log {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";
// Separate entries; a separator at the end (or two in a row) is no entry.
constexpr std::string_view kEntrySeparators = ",;";
// Join the parts of a switch word: "info|warning", "8+16".
constexpr std::string_view kPartSeparators = "|+";

struct SwitchName {
    std::string_view name;
    unsigned bits;
};
constexpr SwitchName kSwitchNames[] = {
    {"off", 0},
    {"none", 0},
    {"info", switches::info},
    {"warning", switches::warning},
    {"trace", switches::trace},
    {"all", switches::all},
};

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// One part of a switch word: a name of kSwitchNames (any letter case), a
// decimal number or a hexadecimal one ("0x38").
std::optional<unsigned> parsePart(std::string_view part) {
    for (const SwitchName& known : kSwitchNames) {
        if (boost::algorithm::iequals(part, known.name)) {
            return known.bits;
        }
    }
    int base = 10;
    if (part.size() > 2 && part[0] == '0' && (part[1] == 'x' || part[1] == 'X')) {
        part.remove_prefix(2);
        base = 16;
    }
    unsigned bits = 0;
    const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), bits, base);
    if (part.empty() || error != std::errc() || end != part.data() + part.size()) {
        return std::nullopt;
    }
    return bits;
}

// A switch word: parts joined by '|' or '+', or'ed together.
std::optional<unsigned> parseSwitches(std::string_view word) {
    unsigned bits = 0;
    for (;;) {
        const auto separator = word.find_first_of(kPartSeparators);
        const std::optional<unsigned> part = parsePart(trimmed(word.substr(0, separator)));
        if (!part) {
            return std::nullopt;
        }
        bits |= *part;
        if (separator == std::string_view::npos) {
            return bits;
        }
        word.remove_prefix(separator + 1);
    }
}

// Parses "channel=switches" (blanks allowed around both); nothing when malformed.
std::optional<std::pair<std::string, unsigned>> parseEntry(std::string_view entry) {
    const auto equals = entry.find('=');
    if (equals == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view channel = trimmed(entry.substr(0, equals));
    const std::optional<unsigned> bits = parseSwitches(trimmed(entry.substr(equals + 1)));
    if (channel.empty() || !bits) {
        return std::nullopt;
    }
    return std::pair(std::string(channel), *bits);
}

} // namespace

void set_channel_switches(const std::string& channel, unsigned switches) {
    detail::ChannelRegistry::instance().setSwitches(channel, switches);
}

void reset_channel_switches() {
    detail::ChannelRegistry::instance().reset();
}

int configure_from_environment() {
    const char* value = std::getenv("KORVEX_LOG");
    if (value == nullptr) {
        return 0;
    }
    int applied = 0;
    std::vector<std::string_view> unreadable;
    std::string_view rest(value);
    while (!rest.empty()) {
        const auto separator = rest.find_first_of(kEntrySeparators);
        const std::string_view entry = trimmed(rest.substr(0, separator));
        rest =
            separator == std::string_view::npos ? std::string_view() : rest.substr(separator + 1);
        if (entry.empty()) {
            continue;
        }
        if (const auto parsed = parseEntry(entry)) {
            set_channel_switches(parsed->first, parsed->second);
            ++applied;
        } else {
            unreadable.push_back(entry);
        }
    }
    if (!unreadable.empty()) {
        std::cerr << "KORVEX_LOG: ignored what it cannot read:";
        for (const std::string_view entry : unreadable) {
            std::cerr << " '" << entry << "'";
        }
        std::cerr << " (entries are channel=switches, separated by ',' or ';'; the channel '*' "
                     "is every channel; switches are off, info, warning, trace, all or a "
                     "number, joined by '|')\n";
    }
    return applied;
}

} // namespace foundation::log
