#pragma once

// Paces a loop that polls MPI for messages while it also waits for news from
// threads of its own process. MPI gives no way to wake a thread blocked in a
// receive from another thread (with MPI called from one thread at a time), so
// the loop polls: for kSpinWindow after the last activity it yields between
// polls, so that a reply arriving within microseconds is seen at once; then
// it sleeps between polls, for kFirstSleep doubling up to kLongestSleep,
// which bounds both the idle CPU cost and the delay of a late message. Local
// news (a condition variable) always ends a pause at once. While spinning it
// yields the processor only every kPollsPerYield polls: a yield is a system
// call, which costs more than a poll, most of all in a virtual machine.
//
// One pacer per polling thread; not shared.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace mpipool {

class PollPacer {
public:
    static constexpr std::chrono::microseconds kSpinWindow{2000};
    static constexpr std::chrono::microseconds kFirstSleep{50};
    static constexpr std::chrono::microseconds kLongestSleep{1000};
    static constexpr unsigned kPollsPerYield = 8;

    // Something happened: spin again.
    void reset() noexcept {
        lastActivity_ = Clock::now();
        sleep_ = kFirstSleep;
    }

    // Returns when the next poll is due, or at once on news: a notification
    // of `news` (or a spurious wake-up; the caller looks for news again
    // either way). `lock` holds the mutex of `news`, and is held again on
    // return.
    void pause(std::unique_lock<std::mutex>& lock, std::condition_variable& news) {
        if (Clock::now() - lastActivity_ < kSpinWindow) {
            if (++polls_ % kPollsPerYield == 0) {
                lock.unlock();
                std::this_thread::yield();
                lock.lock();
            }
            return;
        }
        news.wait_for(lock, sleep_);
        sleep_ = std::min(sleep_ * 2, kLongestSleep);
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point lastActivity_ = Clock::now();
    std::chrono::microseconds sleep_ = kFirstSleep;
    unsigned polls_ = 0;
};

} // namespace mpipool
