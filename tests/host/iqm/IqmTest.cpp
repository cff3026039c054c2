// qz-test-label: concurrency

#include <iqm/Iqm.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <unistd.h>

using iqm::Iqm;
using iqm::SteadyTimePoint;
using namespace std::chrono_literals;

namespace {

SteadyTimePoint steadyNow() {
    return std::chrono::time_point_cast<std::chrono::duration<double>>(
        std::chrono::steady_clock::now());
}

// processUntil(`stop`), with `act` run on another thread once `stop` has first
// answered false (only a post or wake-up gets it asked again). True when it
// returned long before its 60 s wake-by.
bool processUntilAfter(Iqm& iqm, const std::function<bool()>& stop,
                       const std::function<void()>& act) {
    bool first = true;
    std::jthread actor;
    const auto wakeBy = steadyNow() + 60s;
    iqm.processUntil(
        {u"q"},
        [&] { return std::exchange(first, false) ? (actor = std::jthread(act), false) : stop(); },
        wakeBy);
    return steadyNow() < wakeBy - 30s;
}

} // namespace

TEST(Iqm, RunsWorkOnItsThreadOnlyInsideProcessingCalls) {
    Iqm iqm;
    std::thread::id ranOn;
    std::thread([&] {
        iqm.postDetached(u"q", [&] { ranOn = std::this_thread::get_id(); });
        EXPECT_THROW(iqm.processOnce({u"q"}, 1), std::logic_error);
        EXPECT_THROW(iqm.runQueue(u"q", 1), std::logic_error);
        EXPECT_THROW(iqm.processUntil({u"q"}, [] { return true; }), std::logic_error);
    }).join();
    EXPECT_EQ(ranOn, std::thread::id());
    EXPECT_TRUE(iqm.processOnce({u"q"}, std::nullopt));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_FALSE(iqm.processOnce({u"q"}, std::nullopt));
}

TEST(Iqm, RunsOldestFirstWithinTheLimitAndNothingPostedDuringTheCall) {
    Iqm iqm;
    std::string order;
    for (const auto& [queue, tag] : {std::pair{u"a", '1'}, {u"c", '2'}, {u"b", '3'}, {u"a", '4'}}) {
        iqm.postDetached(queue, [&, queue, tag] {
            order += tag;
            iqm.postDetached(queue, [&order] { order += '+'; });
        });
    }
    EXPECT_FALSE(iqm.processOnce({u"a", u"b"}, 0));
    EXPECT_TRUE(iqm.processOnce({u"a", u"b", u"unknown"}, 2));
    EXPECT_EQ(order, "13");
    iqm.runQueue(u"a", std::nullopt); // the repost of "4" waits for the next call
    EXPECT_EQ(order, "134+");
    EXPECT_EQ(iqm.pending(u"a"), 1u);
    EXPECT_EQ(iqm.pending(u"c"), 1u);
}

TEST(Iqm, ProcessUntilAsksAfterEachPieceAndWakesForPostsWakeUpsAndItsWakeBy) {
    Iqm iqm;
    int ran = 0, asked = 0;
    for (int i = 0; i < 3; ++i) {
        iqm.postDetached(u"q", [&] { ++ran; });
    }
    iqm.processUntil({u"q"}, [&] { return ++asked, ran == 2; });
    EXPECT_EQ(asked, 3);

    bool woken = false;
    EXPECT_TRUE(processUntilAfter(
        iqm, [&] { return woken; },
        [&] {
            iqm.postDetached(u"elsewhere", [] {});
            iqm.postDetached(u"q", [&] { woken = true; });
        }));
    EXPECT_EQ(iqm.pending(u"elsewhere"), 1u);
    EXPECT_TRUE(processUntilAfter(
        iqm, [] { return true; }, [&] { iqm.wakeUp(); }));

    const auto wakeBy = steadyNow() + 50ms;
    iqm.processUntil(
        {u"q"}, [] { return false; }, wakeBy);
    EXPECT_GE(steadyNow(), wakeBy);
    // The lowest double and NaN have passed; the largest is no wake-by at all.
    bool done = false;
    iqm.postDetached(u"q", [&] { done = true; });
    constexpr double largest = std::numeric_limits<double>::max();
    for (double at : {std::numeric_limits<double>::lowest(), std::nan(""), largest}) {
        iqm.processUntil(
            {u"q"}, [&] { return done; }, SteadyTimePoint(std::chrono::duration<double>(at)));
        EXPECT_EQ(done, at == largest) << at;
    }
}

TEST(Iqm, ASleeperServesItsReadableSourcesAndStillWakesForPostsAndWakeUps) {
    Iqm iqm;
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    int served = 0;
    std::thread::id servedOn;
    bool leaveIt = false; // to another thread: nothing is read
    // Reads what arrived; the pipe's end ends the source.
    const Iqm::SourceId source = iqm.addReadable(pipeFds[0], [&] {
        ++served;
        servedOn = std::this_thread::get_id();
        if (leaveIt) {
            return Iqm::Served::Elsewhere;
        }
        char byte = 0;
        return ::read(pipeFds[0], &byte, 1) == 1 ? Iqm::Served::Again : Iqm::Served::Ended;
    });
    const auto write = [&] { EXPECT_EQ(::write(pipeFds[1], "x", 1), 1); };

    EXPECT_TRUE(processUntilAfter(
        iqm, [&] { return served == 1; }, write));
    EXPECT_EQ(servedOn, std::this_thread::get_id());
    bool posted = false;
    EXPECT_TRUE(processUntilAfter(
        iqm, [&] { return posted; }, [&] { iqm.postDetached(u"q", [&] { posted = true; }); }));
    EXPECT_TRUE(processUntilAfter(
        iqm, [] { return true; }, [&] { iqm.wakeUp(); }));

    // Left to another thread, the unread input is not polled in the next
    // sleep (no spinning on it), but in the one after.
    leaveIt = true;
    write();
    iqm.processUntil(
        {u"q"}, [] { return false; }, steadyNow() + 20ms);
    EXPECT_EQ(served, 2);
    leaveIt = false;
    EXPECT_TRUE(processUntilAfter(
        iqm, [&] { return served == 3; }, [] {}));

    // An ended source is served once more, then no longer polled.
    EXPECT_TRUE(processUntilAfter(
        iqm, [&] { return served == 4; }, [&] { ::close(pipeFds[1]); }));
    iqm.processUntil(
        {u"q"}, [] { return false; }, steadyNow() + 20ms);
    EXPECT_EQ(served, 4);
    iqm.removeReadable(source); // gone already: nothing to do
    ::close(pipeFds[0]);
    EXPECT_THROW(iqm.addReadable(-1, [] { return Iqm::Served::Again; }), std::invalid_argument);
}

TEST(Iqm, ThrowingWorkReachesItsFutureOrTheDetachedHandler) {
    std::exception_ptr reported;
    iqm::setDetachedErrorHandler([&](std::exception_ptr error) { reported = error; });
    boost::future<void> failed, succeeded, dropped;
    {
        Iqm iqm;
        failed = iqm.post(u"q", [] { throw std::runtime_error("boom"); });
        iqm.postDetached(u"q", [] { throw std::logic_error("detached"); });
        succeeded = iqm.post(u"q", [] {});
        iqm.runQueue(u"q", std::nullopt);
        dropped = iqm.post(u"q", [] {}); // never run: destroying the manager breaks it
        EXPECT_THROW(iqm.post(u"q", {}), std::invalid_argument);
    }
    iqm::setDetachedErrorHandler({});
    EXPECT_THROW(failed.get(), std::runtime_error);
    EXPECT_NO_THROW(succeeded.get());
    ASSERT_TRUE(reported);
    EXPECT_THROW(std::rethrow_exception(reported), std::logic_error);
    EXPECT_THROW(dropped.get(), boost::broken_promise);
}

// Every piece processes the queue again, as a wait inside a continuation does.
TEST(Iqm, WorkNestsNoDeeperThanTheLimitAndAllOfItRuns) {
    Iqm iqm;
    constexpr std::size_t kPieces = 4 * Iqm::kMaxNestedWork;
    std::size_t ran = 0, depth = 0, deepest = 0, atLimit = 0;
    for (std::size_t i = 0; i < kPieces; ++i) {
        iqm.postDetached(u"q", [&] {
            ++ran;
            deepest = std::max(deepest, ++depth);
            atLimit += iqm.atNestingLimit() ? 1 : 0;
            EXPECT_EQ(iqm.processOnce({u"q"}, 1), !iqm.atNestingLimit() && ran < kPieces);
            --depth;
        });
    }
    EXPECT_FALSE(iqm.atNestingLimit());
    iqm.processUntil({u"q"}, [&] { return ran == kPieces; });
    EXPECT_EQ(deepest, Iqm::kMaxNestedWork);
    EXPECT_GE(atLimit, 1u);
    EXPECT_EQ(iqm.pending(u"q"), 0u);
}
