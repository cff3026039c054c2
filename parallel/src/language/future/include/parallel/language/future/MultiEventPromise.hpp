#pragma once

#include <parallel/language/future/Export.hpp>

#include <boost/thread/future.hpp>

#include <atomic>
#include <cstdint>

namespace parallel::language::future {

// A promise that becomes ready after a number of events rather than one: a
// countdown in front of a boost::promise<void>.
//
// States: not ready while the countdown is above 0; ready for good from the
// moment one setOne() takes it from 1 to 0 (or at construction when it starts
// at 0). Later events drive the count below 0 with no effect. Destroyed
// before ready, the promise is broken: its future becomes ready with
// boost::broken_promise and attached continuations run.
//
// Threads: setOne() from any number of threads at once (one sequentially
// consistent fetch-and-subtract; only the caller that reaches 0 touches the
// promise). getFuture() once, by the owner, before the future is shared.
// Continuations attached with boost::launch::sync run inside the setOne()
// that makes the promise ready, on that caller's thread.
class QZ_FUTURE_API MultiEventPromise {
public:
    enum Policy : std::int32_t {
        Any = 0, // the first event makes the promise ready (none expected: ready at once)
        All = 1, // the n-th event makes the promise ready
    };

    // Throws boost::numeric::positive_overflow for All with n > 2^63 - 1.
    MultiEventPromise(Policy policy, unsigned long long n);
    ~MultiEventPromise();
    MultiEventPromise(const MultiEventPromise&) = delete;
    MultiEventPromise& operator=(const MultiEventPromise&) = delete;

    // Records one event.
    void setOne() noexcept;

    // The promise's future; a second call throws boost::future_already_retrieved.
    boost::future<void> getFuture();

private:
    static long long calcCountdownStart(Policy policy, unsigned long long n);

    std::atomic<long long> countdown_;
    boost::promise<void> promise_;
};

} // namespace parallel::language::future
