#pragma once

#include <foundation/log/diagnostic_logger.hpp>

#include <map>
#include <mutex>
#include <set>
#include <string>

namespace foundation::log::detail {

// The process's live loggers by channel, and the switch word configured for
// each channel ("*": every channel). Any thread.
class ChannelRegistry {
public:
    static ChannelRegistry& instance();

    // Registers `logger` and gives it its channel's configured word.
    void add(diagnostic_logger& logger);
    void remove(diagnostic_logger& logger);

    // Sets the word of `channel` for its live and future loggers. "*" sets
    // every channel and replaces the words of single channels.
    void setSwitches(const std::string& channel, unsigned word);
    void reset();

private:
    // Called with the mutex held.
    unsigned configuredWord(const std::string& channel) const;

    mutable std::mutex mutex_;
    std::multimap<std::string, diagnostic_logger*> loggers_;
    std::map<std::string, unsigned> words_;
    unsigned defaultWord_ = 0;
};

} // namespace foundation::log::detail
