#include "DiagnosticLogging.hpp"

#include <boost/log/core/core.hpp>
#include <boost/log/sources/severity_feature.hpp>

#include <mutex>

namespace parallel::language::future::logging {

namespace {
// Built in this order when the library loads, destroyed in reverse order at
// unload.
Logger gFevalFutureLogger("parallel::language::future::FevalFuture");
Logger gFevalOnAllFutureLogger("parallel::language::future::FevalOnAllFuture");
Logger gFutureBaseLogger("parallel::language::future::FutureBase");
Logger gClassInfoLogger("parallel::language::future::Future2CosClassInfo");
Logger gTaskBaseLogger("parallel::language::future::TaskBase");
} // namespace

Logger& fevalFutureLogger() noexcept {
    return gFevalFutureLogger;
}
Logger& fevalOnAllFutureLogger() noexcept {
    return gFevalOnAllFutureLogger;
}
Logger& futureBaseLogger() noexcept {
    return gFutureBaseLogger;
}
Logger& classInfoLogger() noexcept {
    return gClassInfoLogger;
}
Logger& taskBaseLogger() noexcept {
    return gTaskBaseLogger;
}

boost::log::record detail::openRecord(Logger& logger, int severity) noexcept {
    try {
        const auto& core = boost::log::core::get();
        if (!core->get_logging_enabled()) {
            return {};
        }
        std::lock_guard lock(logger.lock());
        boost::log::sources::aux::get_severity_level() = static_cast<std::uintmax_t>(severity);
        return core->open_record(logger.attributes());
    } catch (...) {
        return {};
    }
}

void detail::push(boost::log::record& record) noexcept {
    try {
        boost::log::core::get()->push_record(std::move(record));
    } catch (...) {
        // A failing sink must not reach the operation being logged.
    }
}

void writeMessage(Logger& logger, int severity, std::string_view text) noexcept {
    writeMessage(logger, severity, [text](std::ostream& out) { out << text; });
}

void FunctionTrace::enter() noexcept {
    uncaughtAtEntry_ = std::uncaught_exceptions();
    boost::log::record record = detail::openRecord(logger_, kTraceEntry);
    if (record) {
        detail::writeAndPush(record, [this](std::ostream& out) { out << function_; });
    }
    logger_.indent().increase();
}

void FunctionTrace::exit() noexcept {
    logger_.indent().decrease();
    const bool throwing = std::uncaught_exceptions() > uncaughtAtEntry_;
    boost::log::record record = detail::openRecord(logger_, kTraceExit);
    if (record) {
        detail::writeAndPush(record, [this, throwing](std::ostream& out) {
            out << function_;
            if (throwing) {
                out << " [throw]";
            }
        });
    }
}

} // namespace parallel::language::future::logging
