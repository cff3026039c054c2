#pragma once

// What fetchNext remembers about one sequence of futures between calls, so
// that draining N futures by calling fetchNext N times costs O(N) in all
// rather than a walk over the whole sequence per call.
//
// A fetchNext answer is fixed by: the first future that stops the walk (a
// multi-task or an invalid future: the stopper), and before it, the lowest
// unread finished future, the unread futures still running, and whether any
// future is read or submitted. The drain keeps those, by index:
//
//   - the stopper, found once: being multi-task or invalid never changes;
//   - the frontier: entries below it have been examined once, entries from
//     it on not yet. An examined entry was read (and stays read: Read flags
//     only ever go from false to true), or is watched: a finish callback
//     hands its index to the inbox. A watched entry is NotSubmitted or
//     Submitted (Pending/Unavailable, or later, when examined; a submitted
//     future never goes back), then Finished once its callback has run;
//   - the finished entries in a set that gives its lowest member (read ones
//     are dropped when they are the lowest), the Submitted ones in a queue
//     (read or finished ones are dropped when they reach the front), the
//     NotSubmitted ones in a list looked at again only when the answer
//     depends on them.
//
// Every entry is examined once, added to and dropped from each structure
// once, so a drain costs O(N) in all. The first call on a drain walks
// instead (see takeFirstUse): the drain starts paying off from the second
// call.
//
// A wait ends for the futures that were submitted, unread and running when
// it began, as the walk's wait does; one read meanwhile by other code does
// not end it. A future is seen finished through its callback: one whose
// callback is still running on its worker is taken by a later call, as if
// it had finished a moment later.
//
// The drain trusts the futures it is given to be those it was made for, in
// the same order: every entry it looks at is checked against the identity
// it remembers (address and ID); a mismatch throws StaleFutures, before any
// future is fetched, and the caller makes a new drain.
//
// Threads: one fetchNext at a time uses a drain (Lease), on the interpreter
// thread. The finish callbacks run on any thread and only touch the inbox,
// under its mutex; the inbox wakes the waiting queue manager after posting.

#include <parallel/language/future/FetchNextState.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace iqm {
class Iqm;
}

namespace parallel::language::future::detail {

using FutureSpan = std::span<const std::shared_ptr<FutureBase>>;

// The futures given to a drain are not those it was made for.
struct StaleFutures : std::exception {
    const char* what() const noexcept override;
};

// Indices of watched futures that finished, handed from the threads that
// finish them to the drain. Any thread.
class FinishedInbox {
public:
    // Posts `index` and wakes the waiter, if one is set.
    void post(std::size_t index) QZ_EXCLUDES(mutex_);
    // Moves every posted index into `into`.
    void takeAll(std::vector<std::size_t>& into) QZ_EXCLUDES(mutex_);
    // The queue manager to wake from now on; null for none.
    void setWaiter(std::shared_ptr<iqm::Iqm> waiter) QZ_EXCLUDES(mutex_);

private:
    foundation::core::sync::Mutex mutex_;
    std::vector<std::size_t> posted_ QZ_GUARDED_BY(mutex_);
    std::shared_ptr<iqm::Iqm> waiter_ QZ_GUARDED_BY(mutex_);
};

// A set of the indices 0 .. size-1 that gives its lowest member, as bits in
// levels of 64-bit words: a bit of level k+1 is set while the word of level
// k it stands for has a bit set. Adding, dropping and finding the lowest cost one
// word per level (three up to 262,144 indices) and touch N/8 bytes at most,
// where a heap of the same indices costs log N scattered steps.
class LowestIndexSet {
public:
    explicit LowestIndexSet(std::size_t size);

    bool empty() const noexcept { return levels_.back().front() == 0; }
    // The lowest member; only when not empty.
    std::size_t lowest() const noexcept;
    void insert(std::size_t index) noexcept;
    void erase(std::size_t index) noexcept;

private:
    std::vector<std::vector<std::uint64_t>> levels_; // the last has one word
};

class FetchNextDrain {
public:
    // Finds the stopper: O(N), once.
    explicit FetchNextDrain(FutureSpan futures);
    ~FetchNextDrain();
    FetchNextDrain(const FetchNextDrain&) = delete;
    FetchNextDrain& operator=(const FetchNextDrain&) = delete;

    // The drain taken for one fetchNext; empty when a call already has it
    // (a call nested in another from work run while it waits).
    class Lease {
    public:
        explicit Lease(FetchNextDrain& drain) noexcept
            : drain_(drain.leased_.exchange(true, std::memory_order_acquire) ? nullptr : &drain) {}
        ~Lease() {
            if (drain_ != nullptr) {
                drain_->leased_.store(false, std::memory_order_release);
            }
        }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        explicit operator bool() const noexcept { return drain_ != nullptr; }

    private:
        FetchNextDrain* drain_;
    };

    // True for the first call only. That call walks instead of using the
    // drain, so that a drain used once (an array made for one call) leaves
    // no finish callbacks behind on futures that are still running.
    bool takeFirstUse() noexcept { return std::exchange(firstUse_, false); }
    // Throws StaleFutures unless `futures` has the size, first and last
    // futures the drain was made for.
    void checkEnds(FutureSpan futures) const;

    // The lowest unread finished future before the stopper. Examines new
    // entries only up to it, watching those that have not finished.
    std::optional<std::size_t> nextFinished(FutureSpan futures);
    // The answer for the stopper, when there is one.
    std::optional<FetchNextState> stopper() const noexcept;
    // Looks again at the futures that were not submitted when examined.
    void promoteSubmitted(FutureSpan futures);
    // Whether some unread submitted future has not finished yet.
    bool hasRunning(FutureSpan futures);
    // Whether some future was seen read. With no stopper, no finished and
    // no running future left, this tells NoUnreadFutures from NotSubmitted.
    bool sawRead() const noexcept { return sawRead_; }

    // A wait for the futures running when it began: their callbacks wake
    // `queueManager` until endWait.
    void beginWait(std::shared_ptr<iqm::Iqm> queueManager);
    void endWait() noexcept;
    // The lowest future that was running when the wait began, is unread and
    // has finished since.
    std::optional<std::size_t> finishedSinceWaitBegan(FutureSpan futures);

private:
    enum class Watch : std::uint8_t { Unwatched, NotSubmitted, Submitted, Finished };
    struct Identity {
        const FutureBase* future;
        long long id;
    };

    FutureBase& entry(FutureSpan futures, std::size_t index) const;
    void watch(FutureBase& future, std::size_t index, Watch watch);
    // Takes the posted indices; those of futures running when the wait began
    // that are unread lower `finishedInWait_`, when `inWait`.
    void absorbFinished(FutureSpan futures, bool inWait);

    std::vector<Identity> identities_;
    std::size_t stopper_;
    FetchNextState stopperState_ = FetchNextState::UnsupportedFutureType;
    std::size_t frontier_ = 0;
    std::vector<Watch> watches_;
    LowestIndexSet finished_;
    std::vector<std::size_t> submitted_;
    std::size_t submittedFront_ = 0;
    std::vector<std::size_t> notSubmitted_;
    bool sawRead_ = false;
    bool firstUse_ = true;
    std::optional<std::size_t> finishedInWait_;
    std::vector<std::size_t> taken_; // reused by absorbFinished
    std::shared_ptr<FinishedInbox> inbox_ = std::make_shared<FinishedInbox>();
    std::atomic<bool> leased_{false};
};

} // namespace parallel::language::future::detail
