#include <foundation/log/diagnostic_logger.hpp>

#include "ChannelRegistry.hpp"

#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/attributes/function.hpp>
#include <boost/log/sources/severity_feature.hpp>
#include <boost/thread/tss.hpp>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include <utility>

namespace foundation::log {

namespace detail {

// The depth of every thread, each in a slot of its own: a record shows the
// nesting of the thread that writes it.
class indent_attribute::impl : public boost::log::attribute::impl {
public:
    boost::log::attribute_value get_value() override {
        return boost::log::attributes::make_attribute_value(depth());
    }

    // Moves the calling thread's depth by `step`; without memory for its
    // slot, the thread's records stay unindented.
    void add(int step) noexcept {
        try {
            if (depths_.get() == nullptr) {
                auto fresh = std::make_unique<int>(0);
                depths_.reset(fresh.get());
                fresh.release();
            }
            *depths_ += step;
        } catch (...) {
            // No memory for the slot (or Boost's thread data): stay unindented.
        }
    }
    int depth() const {
        const int* depth = depths_.get();
        return depth != nullptr ? *depth : 0;
    }

private:
    boost::thread_specific_ptr<int> depths_;
};

indent_attribute::indent_attribute()
    : boost::log::attribute(new impl()), impl_(static_cast<impl*>(get_impl())) {}

void indent_attribute::increase() noexcept {
    impl_->add(1);
}

void indent_attribute::decrease() noexcept {
    impl_->add(-1);
}

int indent_attribute::depth() const noexcept {
    return impl_->depth();
}

namespace {
thread_local SubjectScope::Subject tSubject;
} // namespace

std::string current_subject() {
    if (tSubject.kind == nullptr) {
        return {};
    }
    return std::string(tSubject.kind) + ' ' + std::to_string(tSubject.id);
}

unsigned thread_number() noexcept {
    static std::atomic<unsigned> next{1};
    thread_local const unsigned number = next.fetch_add(1, std::memory_order_relaxed);
    return number;
}

} // namespace detail

basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string channel)
    : channel_(std::move(channel)), switches_(0) {
    attributes_.insert("Channel", boost::log::attributes::constant<std::string>(channel_));
    attributes_.insert("Severity", boost::log::sources::aux::severity_level<int>());
    attributes_.insert("Indent", indent_);
    attributes_.insert("Thread", boost::log::attributes::make_function(&detail::thread_number));
    attributes_.insert("Subject", boost::log::attributes::make_function(&detail::current_subject));
    attributes_.insert("Time", boost::log::attributes::make_function(
                                   [] { return std::chrono::system_clock::now(); }));
    detail::ChannelRegistry::instance().add(*this);
}

basic_diagnostic_logger<char>::~basic_diagnostic_logger() {
    detail::ChannelRegistry::instance().remove(*this);
}

SubjectScope::SubjectScope(const char* kind, long long id) noexcept : previous_(detail::tSubject) {
    detail::tSubject = {kind, id};
}

SubjectScope::~SubjectScope() {
    detail::tSubject = previous_;
}

} // namespace foundation::log
