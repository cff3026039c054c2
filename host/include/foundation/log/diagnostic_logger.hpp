#pragma once

// Diagnostic loggers of the host, on Boost.Log.
//
// A logger has a channel name, a switch word with one bit per kind of record
// (bit values 8 and 16 enable messages of those severities, 32 enables
// function traces), an indent attribute that function traces raise and lower,
// and an exclusive lock held only around opening a record. The severity of a
// record is the calling thread's Boost.Log severity level
// (boost::log::sources::aux::get_severity_level()) at the moment the record
// is opened with the logger's attribute set.
//
// Switch words are set through the host logging configuration
// (foundation/log/configuration.hpp), by channel name.

#include <host/Export.hpp>

#include <boost/log/attributes/attribute.hpp>
#include <boost/log/attributes/attribute_set.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace foundation::log {

// Severity values of the host logging library.
namespace severity {
inline constexpr int info = 8;
inline constexpr int warning = 16;
inline constexpr int trace_entry = 32;
inline constexpr int trace_exit = 64;
} // namespace severity

// Bits of a logger's switch word.
namespace switches {
inline constexpr unsigned info = 8;
inline constexpr unsigned warning = 16;
inline constexpr unsigned trace = 32;
inline constexpr unsigned all = info | warning | trace;
} // namespace switches

namespace detail {
// A Boost.Log attribute whose value (int) is the indentation depth of the
// calling thread: each thread raises and lowers its own. Any thread.
class QZHOST_API indent_attribute : public boost::log::attribute {
public:
    indent_attribute();
    void increase() noexcept;
    void decrease() noexcept;
    int depth() const noexcept;

private:
    class impl;
    impl* impl_; // owned through the attribute's reference-counted implementation
};

// "<kind> <id>" of the innermost SubjectScope alive on the calling thread,
// or empty. Any thread.
QZHOST_API std::string current_subject();

// A small number naming the calling thread in records, 1 for the first
// thread that writes one. Any thread.
QZHOST_API unsigned thread_number() noexcept;
} // namespace detail

template <class CharT>
class basic_diagnostic_logger;

// One logger per channel and source unit, usually a static object. Any thread.
template <>
class QZHOST_API basic_diagnostic_logger<char> {
public:
    explicit basic_diagnostic_logger(std::string channel);
    ~basic_diagnostic_logger();
    basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

    const std::string& channel() const noexcept { return channel_; }

    // The switch word. Relaxed: a change is seen by later records, with no
    // ordering against anything else.
    unsigned switches() const noexcept { return switches_.load(std::memory_order_relaxed); }
    bool is_enabled(unsigned bit) const noexcept { return (switches() & bit) != 0; }
    void set_switches(unsigned word) noexcept { switches_.store(word, std::memory_order_relaxed); }

    // The exclusive lock, held only around boost::log::core::open_record.
    std::mutex& lock() noexcept { return lock_; }
    // Attributes to pass to open_record: "Channel", "Severity", "Indent",
    // "Thread" (detail::thread_number), "Time" (std::chrono::system_clock),
    // "Subject" (detail::current_subject).
    const boost::log::attribute_set& attributes() const noexcept { return attributes_; }
    detail::indent_attribute& indent() noexcept { return indent_; }

private:
    std::string channel_;
    std::atomic<unsigned> switches_;
    std::mutex lock_;
    detail::indent_attribute indent_;
    boost::log::attribute_set attributes_;
};

using diagnostic_logger = basic_diagnostic_logger<char>;

// While alive, every record written on the calling thread carries the
// attribute "Subject", "<kind> <id>" (for example "future 12"): what the
// records are about. Scopes nest; the innermost wins. `kind` must outlive
// the scope (a string literal). The calling thread only.
class QZHOST_API SubjectScope {
public:
    SubjectScope(const char* kind, long long id) noexcept;
    ~SubjectScope();
    SubjectScope(const SubjectScope&) = delete;
    SubjectScope& operator=(const SubjectScope&) = delete;

    struct Subject {
        const char* kind = nullptr; // null: no subject
        long long id = 0;
    };

private:
    Subject previous_;
};

} // namespace foundation::log
