#pragma once

// The host logging configuration: which channels write which records, and
// where records go. Any thread.

#include <host/Export.hpp>

#include <chrono>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace foundation::log {

// Sets the switch word of every logger of `channel`, now and for loggers made
// later. The channel "*" stands for every channel.
QZHOST_API void set_channel_switches(const std::string& channel, unsigned switches);
// Turns every channel off again.
QZHOST_API void reset_channel_switches();

// Reads the environment variable KORVEX_LOG and applies it: entries
// "channel=switches" separated by ',' or ';' (blanks around anything, empty
// entries ignored), the channel "*" for every channel, switches as names
// (off, info, warning, trace, all; any letter case) or numbers (decimal or
// 0x hexadecimal) joined by '|' or '+'. Answers how many entries were
// applied; the others are named in one warning on standard error.
QZHOST_API int configure_from_environment();

// A sink that writes each record as one line to `out`:
// "HH:MM:SS.ffffff T<thread> [channel] <two spaces per indent level>text"
// (local time, microseconds; the thread's detail::thread_number), the text
// of a function trace's entry record marked "> " and of its exit record
// "< ", followed by " (<subject>)" when the record has one (SubjectScope).
// Removed when the handle is destroyed; `out` must outlive it.
class QZHOST_API ConsoleSink {
public:
    explicit ConsoleSink(std::ostream& out);
    ~ConsoleSink();
    ConsoleSink(const ConsoleSink&) = delete;
    ConsoleSink& operator=(const ConsoleSink&) = delete;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// A record as a sink saw it.
struct CapturedRecord {
    std::string channel;
    int severity = 0;
    std::string message;
    int indent = 0; // of the writing thread
    unsigned thread = 0;
    std::string subject; // empty when none
    std::chrono::system_clock::time_point time;
};

// A sink that keeps every record, optionally of one channel only, from its
// construction to its destruction. Any thread.
class QZHOST_API RecordCapture {
public:
    explicit RecordCapture(std::string channel = {});
    ~RecordCapture();
    RecordCapture(const RecordCapture&) = delete;
    RecordCapture& operator=(const RecordCapture&) = delete;

    std::vector<CapturedRecord> records() const;
    void clear();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace foundation::log
