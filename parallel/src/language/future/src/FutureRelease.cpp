#include "FutureRelease.hpp"

#include <utility>
#include <vector>

namespace parallel::language::future::detail {

namespace {

// The futures waiting to be dropped on this thread, and whether a release
// further up this thread's stack is dropping them.
struct ReleaseWorkList {
    std::vector<std::shared_ptr<FutureBase>> pending;
    bool draining = false;
};

thread_local ReleaseWorkList tWorkList;

} // namespace

void releaseFuture(std::shared_ptr<FutureBase> future) noexcept {
    ReleaseWorkList& list = tWorkList;
    if (list.draining) {
        try {
            list.pending.push_back(std::move(future));
        } catch (...) {
            // No memory for the list: drop it here, one level deeper.
            future.reset();
        }
        return;
    }
    list.draining = true;
    future.reset();
    while (!list.pending.empty()) {
        std::shared_ptr<FutureBase> next = std::move(list.pending.back());
        list.pending.pop_back();
        next.reset();
    }
    list.draining = false;
}

} // namespace parallel::language::future::detail
