#pragma once

// Futures of results that the command distributor delivers: thin wrappers of
// Boost futures. A Future is moved; a SharedFuture is copied and read by any
// number of threads. Any thread.

#include <boost/thread/future.hpp>

#include <utility>

namespace kvm {

template <class T>
class SharedFuture;

template <class T>
class Future {
public:
    Future() = default;
    explicit Future(boost::future<T> future) : future_(std::move(future)) {}

    bool valid() const { return future_.valid(); }
    bool is_ready() const { return future_.is_ready(); }
    void wait() const { future_.wait(); }
    // The value, or the delivered error rethrown. Once.
    T get() { return future_.get(); }
    SharedFuture<T> share() { return SharedFuture<T>(future_.share()); }

private:
    boost::future<T> future_;
};

template <class T>
class SharedFuture {
public:
    SharedFuture() = default;
    explicit SharedFuture(boost::shared_future<T> future) : future_(std::move(future)) {}
    SharedFuture(Future<T>&& future) : SharedFuture(future.share()) {}

    bool valid() const { return future_.valid(); }
    bool is_ready() const { return future_.is_ready(); }
    void wait() const { future_.wait(); }
    // The value, or the delivered error rethrown. Any number of times.
    decltype(auto) get() const { return future_.get(); }
    // Runs `continuation(boost::shared_future<T>)` once the result is there,
    // as Boost's then under `policy`.
    template <class Continuation>
    auto then(boost::launch policy, Continuation&& continuation) const {
        return future_.then(policy, std::forward<Continuation>(continuation));
    }

private:
    boost::shared_future<T> future_;
};

} // namespace kvm
