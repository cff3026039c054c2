#include <foundation/log/diagnostic_logger.hpp>

#include "ChannelRegistry.hpp"

#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/sources/severity_feature.hpp>

#include <utility>

namespace foundation::log {

namespace detail {

class indent_attribute::impl : public boost::log::attribute::impl {
public:
    boost::log::attribute_value get_value() override {
        return boost::log::attributes::make_attribute_value(depth.load(std::memory_order_relaxed));
    }

    std::atomic<int> depth{0};
};

indent_attribute::indent_attribute()
    : boost::log::attribute(new impl()), impl_(static_cast<impl*>(get_impl())) {}

void indent_attribute::increase() noexcept {
    impl_->depth.fetch_add(1, std::memory_order_relaxed);
}

void indent_attribute::decrease() noexcept {
    impl_->depth.fetch_sub(1, std::memory_order_relaxed);
}

int indent_attribute::depth() const noexcept {
    return impl_->depth.load(std::memory_order_relaxed);
}

} // namespace detail

basic_diagnostic_logger<char>::basic_diagnostic_logger(std::string channel)
    : channel_(std::move(channel)), switches_(0) {
    attributes_.insert("Channel", boost::log::attributes::constant<std::string>(channel_));
    attributes_.insert("Severity", boost::log::sources::aux::severity_level<int>());
    attributes_.insert("Indent", indent_);
    detail::ChannelRegistry::instance().add(*this);
}

basic_diagnostic_logger<char>::~basic_diagnostic_logger() {
    detail::ChannelRegistry::instance().remove(*this);
}

} // namespace foundation::log
