#include <foundation/log/configuration.hpp>

#include "ChannelRegistry.hpp"

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace foundation::log {

namespace {

// Parses "channel=bits"; false when malformed.
bool parseEntry(std::string_view entry, std::string& channel, unsigned& bits) {
    const auto equals = entry.find('=');
    if (equals == std::string_view::npos || equals == 0) {
        return false;
    }
    const std::string_view digits = entry.substr(equals + 1);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), bits);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
        return false;
    }
    channel = entry.substr(0, equals);
    return true;
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
    std::string_view rest(value);
    while (!rest.empty()) {
        const auto comma = rest.find(',');
        const std::string_view entry = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        std::string channel;
        unsigned bits = 0;
        if (parseEntry(entry, channel, bits)) {
            set_channel_switches(channel, bits);
            ++applied;
        }
    }
    return applied;
}

} // namespace foundation::log
