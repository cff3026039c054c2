#include <parallel/language/future/MultiEventPromise.hpp>

#include "Fatal.hpp"

#include <boost/numeric/conversion/cast.hpp>

namespace parallel::language::future {

MultiEventPromise::MultiEventPromise(Policy policy, unsigned long long n)
    : countdown_(calcCountdownStart(policy, n)) {
    if (countdown_.load() == 0) {
        promise_.set_value();
    }
}

MultiEventPromise::~MultiEventPromise() = default;

void MultiEventPromise::setOne() noexcept {
    if (countdown_.fetch_sub(1) == 1) {
        promise_.set_value();
    }
}

boost::future<void> MultiEventPromise::getFuture() {
    return promise_.get_future();
}

long long MultiEventPromise::calcCountdownStart(Policy policy, unsigned long long n) {
    switch (policy) {
    case Any:
        return n != 0 ? 1 : 0;
    case All:
        // Throws boost::numeric::positive_overflow above 2^63 - 1.
        return boost::numeric_cast<long long>(n);
    }
    detail::fatal("Unknown policy provided to MultiEventPromise.");
}

} // namespace parallel::language::future
