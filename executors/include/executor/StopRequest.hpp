#pragma once

// The stop request of an evaluation, as the function being evaluated sees it,
// whichever pool runs it.

#include <atomic>

namespace executor {

// Inside a function that a pool's worker is running: whether its evaluation
// was asked to stop (cancelled while running, or its pool shutting down).
// False on any other thread. A long function polls it and returns early.
bool stopRequested() noexcept;

// Makes stopRequested() on the calling thread read `flag` while alive; the
// flag must outlive the scope. Scopes nest. A pool's worker thread, around
// the call of the function.
class StopFlagScope {
public:
    explicit StopFlagScope(const std::atomic<bool>& flag) noexcept;
    ~StopFlagScope();
    StopFlagScope(const StopFlagScope&) = delete;
    StopFlagScope& operator=(const StopFlagScope&) = delete;

private:
    const std::atomic<bool>* previous_;
};

} // namespace executor
