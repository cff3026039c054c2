#include "ChannelRegistry.hpp"

namespace foundation::log::detail {

ChannelRegistry& ChannelRegistry::instance() {
    // Built before the first logger, so destroyed after the last static one.
    static ChannelRegistry registry;
    return registry;
}

void ChannelRegistry::add(diagnostic_logger& logger) {
    std::lock_guard guard(mutex_);
    logger.set_switches(configuredWord(logger.channel()));
    loggers_.emplace(logger.channel(), &logger);
}

void ChannelRegistry::remove(diagnostic_logger& logger) {
    std::lock_guard guard(mutex_);
    auto [first, last] = loggers_.equal_range(logger.channel());
    for (auto it = first; it != last; ++it) {
        if (it->second == &logger) {
            loggers_.erase(it);
            return;
        }
    }
}

void ChannelRegistry::setSwitches(const std::string& channel, unsigned word) {
    std::lock_guard guard(mutex_);
    if (channel == "*") {
        words_.clear();
        defaultWord_ = word;
        for (auto& [name, logger] : loggers_) {
            logger->set_switches(word);
        }
        return;
    }
    words_[channel] = word;
    auto [first, last] = loggers_.equal_range(channel);
    for (auto it = first; it != last; ++it) {
        it->second->set_switches(word);
    }
}

void ChannelRegistry::reset() {
    setSwitches("*", 0);
}

unsigned ChannelRegistry::configuredWord(const std::string& channel) const {
    const auto it = words_.find(channel);
    return it == words_.end() ? defaultWord_ : it->second;
}

} // namespace foundation::log::detail
