#include <executor/StopRequest.hpp>

namespace executor {

namespace {

// The flag of the evaluation this thread runs; null outside one.
thread_local const std::atomic<bool>* tCurrentStopFlag = nullptr;

} // namespace

bool stopRequested() noexcept {
    return tCurrentStopFlag != nullptr && tCurrentStopFlag->load();
}

StopFlagScope::StopFlagScope(const std::atomic<bool>& flag) noexcept : previous_(tCurrentStopFlag) {
    tCurrentStopFlag = &flag;
}

StopFlagScope::~StopFlagScope() {
    tCurrentStopFlag = previous_;
}

} // namespace executor
