#include <foundation/log/configuration.hpp>
#include <foundation/log/diagnostic_logger.hpp>

#include <boost/core/null_deleter.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iomanip>
#include <mutex>
#include <sstream>

namespace foundation::log {

namespace {

namespace logging = boost::log;

CapturedRecord capture(const logging::record_view& record) {
    CapturedRecord captured;
    captured.channel = logging::extract_or_default<std::string>("Channel", record, std::string());
    captured.severity = logging::extract_or_default<int>("Severity", record, 0);
    captured.indent = logging::extract_or_default<int>("Indent", record, 0);
    captured.message = logging::extract_or_default<std::string>("Message", record, std::string());
    captured.thread = logging::extract_or_default<unsigned>("Thread", record, 0u);
    captured.subject = logging::extract_or_default<std::string>("Subject", record, std::string());
    captured.time = logging::extract_or_default<std::chrono::system_clock::time_point>(
        "Time", record, std::chrono::system_clock::time_point());
    return captured;
}

// "HH:MM:SS.ffffff" in local time.
std::string formatTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                            time - std::chrono::system_clock::from_time_t(seconds))
                            .count();
    std::tm local{};
    localtime_r(&seconds, &local);
    std::ostringstream text;
    text << std::put_time(&local, "%H:%M:%S") << '.' << std::setfill('0') << std::setw(6) << micros;
    return text.str();
}

// The time, "T<thread> [channel] ", two spaces per indent level, "> " or
// "< " for the entry or exit record of a function trace, and the text.
void formatLine(const logging::record_view& record, logging::formatting_ostream& out) {
    const CapturedRecord line = capture(record);
    out << formatTime(line.time) << " T" << line.thread << " [" << line.channel << "] "
        << std::string(2 * std::max(line.indent, 0), ' ');
    if (line.severity == foundation::log::severity::trace_entry) {
        out << "> ";
    } else if (line.severity == foundation::log::severity::trace_exit) {
        out << "< ";
    }
    out << line.message;
    if (!line.subject.empty()) {
        out << " (" << line.subject << ')';
    }
}

// Keeps the records it is fed. Any thread.
class CaptureBackend
    : public logging::sinks::basic_sink_backend<logging::sinks::concurrent_feeding> {
public:
    void consume(const logging::record_view& record) {
        CapturedRecord captured = capture(record);
        std::lock_guard guard(mutex_);
        records_.push_back(std::move(captured));
    }

    std::vector<CapturedRecord> records() const {
        std::lock_guard guard(mutex_);
        return records_;
    }

    void clear() {
        std::lock_guard guard(mutex_);
        records_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<CapturedRecord> records_;
};

using ConsoleFrontend = logging::sinks::synchronous_sink<logging::sinks::text_ostream_backend>;
using CaptureFrontend = logging::sinks::synchronous_sink<CaptureBackend>;

} // namespace

struct ConsoleSink::Impl {
    boost::shared_ptr<ConsoleFrontend> sink;
};

ConsoleSink::ConsoleSink(std::ostream& out) : impl_(std::make_unique<Impl>()) {
    auto backend = boost::make_shared<logging::sinks::text_ostream_backend>();
    backend->add_stream(boost::shared_ptr<std::ostream>(&out, boost::null_deleter()));
    backend->auto_flush(true);
    impl_->sink = boost::make_shared<ConsoleFrontend>(backend);
    impl_->sink->set_formatter(&formatLine);
    logging::core::get()->add_sink(impl_->sink);
}

ConsoleSink::~ConsoleSink() {
    logging::core::get()->remove_sink(impl_->sink);
    impl_->sink->flush();
}

struct RecordCapture::Impl {
    boost::shared_ptr<CaptureBackend> backend = boost::make_shared<CaptureBackend>();
    boost::shared_ptr<CaptureFrontend> sink = boost::make_shared<CaptureFrontend>(backend);
};

RecordCapture::RecordCapture(std::string channel) : impl_(std::make_unique<Impl>()) {
    if (!channel.empty()) {
        impl_->sink->set_filter(logging::expressions::attr<std::string>("Channel") == channel);
    }
    logging::core::get()->add_sink(impl_->sink);
}

RecordCapture::~RecordCapture() {
    logging::core::get()->remove_sink(impl_->sink);
}

std::vector<CapturedRecord> RecordCapture::records() const {
    return impl_->backend->records();
}

void RecordCapture::clear() {
    impl_->backend->clear();
}

} // namespace foundation::log
