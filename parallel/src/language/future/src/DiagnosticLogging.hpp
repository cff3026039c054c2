#pragma once

// The library's diagnostic loggers, function traces and message records.
// Logging never changes behaviour: whether records are written depends only
// on a logger's switch word and on the Boost.Log core, and writing a record
// never throws to the caller.

#include <foundation/log/diagnostic_logger.hpp>

#include <boost/log/core/record.hpp>
#include <boost/log/sources/record_ostream.hpp>

#include <concepts>
#include <exception>
#include <optional>
#include <ostream>
#include <string_view>

namespace parallel::language::future::logging {

using Logger = foundation::log::diagnostic_logger;

// One logger per source unit; static objects built when the library loads.
Logger& fevalFutureLogger() noexcept;
Logger& fevalOnAllFutureLogger() noexcept;
Logger& futureBaseLogger() noexcept;
Logger& classInfoLogger() noexcept;
Logger& taskBaseLogger() noexcept;

// Severity values of the records written here.
inline constexpr int kMessage = 8;
inline constexpr int kCaughtException = 16;
inline constexpr int kTraceEntry = 32;
inline constexpr int kTraceExit = 64;
inline constexpr unsigned kTraceBit = 32;

namespace detail {
// Opens a record at `severity` under the logger's lock; empty when the core
// rejects it or logging is disabled.
boost::log::record openRecord(Logger& logger, int severity) noexcept;
// Writes `write`'s output into `record` and pushes it, unless an exception
// started while writing.
template <class Write>
void writeAndPush(boost::log::record& record, Write&& write) noexcept;
void push(boost::log::record& record) noexcept;
} // namespace detail

// Writes one record at `severity` (8 or 16) whose text `write(std::ostream&)`
// produces; `write` runs only when the record is enabled. Any thread.
template <class Write>
requires std::invocable<Write, std::ostream&>
void writeMessage(Logger& logger, int severity, Write&& write) noexcept;
void writeMessage(Logger& logger, int severity, std::string_view text) noexcept;

// Brackets an operation with an entry record (severity 32) and an exit
// record (severity 64, " [throw]" appended when left by an exception), and
// indents what is logged in between. Does nothing at all unless the trace bit
// was set at entry. With a subject (a task or future and its ID), every
// record written on this thread while the trace is open names it. Use
// through QZ_FUTURE_TRACE or QZ_FUTURE_TRACE_OF.
class FunctionTrace {
public:
    FunctionTrace(Logger& logger, const char* function, std::size_t functionLength,
                  const char* subjectKind = nullptr, long long subjectID = 0) noexcept
        : logger_(logger), function_(function, functionLength),
          enabled_(logger.is_enabled(kTraceBit)) {
        if (enabled_) {
            if (subjectKind != nullptr) {
                subject_.emplace(subjectKind, subjectID);
            }
            enter();
        }
    }
    ~FunctionTrace() {
        if (enabled_) {
            exit();
        }
    }
    FunctionTrace(const FunctionTrace&) = delete;
    FunctionTrace& operator=(const FunctionTrace&) = delete;

private:
    void enter() noexcept;
    void exit() noexcept;

    Logger& logger_;
    std::string_view function_;
    bool enabled_;
    std::optional<foundation::log::SubjectScope> subject_;
    int uncaughtAtEntry_ = 0;
};

} // namespace parallel::language::future::logging

#define QZ_FUTURE_TRACE(logger)                                                                    \
    ::parallel::language::future::logging::FunctionTrace qzFunctionTrace_(                         \
        (logger), __PRETTY_FUNCTION__, sizeof(__PRETTY_FUNCTION__) - 1)
// A trace about one task or future: QZ_FUTURE_TRACE_OF(logger(), "task", serial).
#define QZ_FUTURE_TRACE_OF(logger, kind, id)                                                       \
    ::parallel::language::future::logging::FunctionTrace qzFunctionTrace_(                         \
        (logger), __PRETTY_FUNCTION__, sizeof(__PRETTY_FUNCTION__) - 1, (kind),                    \
        static_cast<long long>(id))

namespace parallel::language::future::logging {

template <class Write>
void detail::writeAndPush(boost::log::record& record, Write&& write) noexcept {
    try {
        const int uncaughtBefore = std::uncaught_exceptions();
        boost::log::record_ostream out(record);
        write(static_cast<std::ostream&>(out.stream()));
        out.flush();
        if (std::uncaught_exceptions() > uncaughtBefore) {
            return;
        }
    } catch (...) {
        return;
    }
    push(record);
}

template <class Write>
requires std::invocable<Write, std::ostream&>
void writeMessage(Logger& logger, int severity, Write&& write) noexcept {
    if (!logger.is_enabled(static_cast<unsigned>(severity))) {
        return;
    }
    boost::log::record record = detail::openRecord(logger, severity);
    if (record) {
        detail::writeAndPush(record, std::forward<Write>(write));
    }
}

} // namespace parallel::language::future::logging
