// qz-test-label: concurrency

#include <iqm/Iqm.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using iqm::Iqm;
using iqm::SteadyTimePoint;
using namespace std::chrono_literals;

namespace {

SteadyTimePoint steadyAt(double seconds) {
    return SteadyTimePoint(std::chrono::duration<double>(seconds));
}

SteadyTimePoint steadyNow() {
    return std::chrono::time_point_cast<std::chrono::duration<double>>(
        std::chrono::steady_clock::now());
}

// processUntil(`stop`) with `act` run on another thread once `stop` has
// answered false the first time. Answers whether it returned within 30 s.
template <class Act>
bool processUntilAfter(Iqm& iqm, const std::function<bool()>& stop, Act act) {
    std::promise<void> firstAsked;
    std::thread actor([&] {
        firstAsked.get_future().wait();
        act();
    });
    bool first = true;
    const auto deadline = steadyNow() + 60s;
    iqm.processUntil(
        {u"q"},
        [&] {
            if (first) {
                first = false;
                firstAsked.set_value();
                return false; // only a post or wake-up gets the predicate asked again
            }
            return stop();
        },
        deadline);
    actor.join();
    return steadyNow() < deadline - 30s;
}

} // namespace

TEST(Iqm, RunsWorkOnItsThreadOnlyInsideProcessingCalls) {
    Iqm iqm;
    std::thread::id ranOn;
    std::thread([&] {
        iqm.postDetached(u"q", [&] { ranOn = std::this_thread::get_id(); });
    }).join();
    EXPECT_EQ(iqm.pending(u"q"), 1u);
    EXPECT_EQ(ranOn, std::thread::id());
    EXPECT_TRUE(iqm.processOnce({u"q"}, std::nullopt));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_FALSE(iqm.processOnce({u"q"}, std::nullopt));

    std::thread([&] {
        EXPECT_THROW(iqm.processOnce({u"q"}, 1), std::logic_error);
        EXPECT_THROW(iqm.runQueue(u"q", 1), std::logic_error);
        EXPECT_THROW(iqm.processUntil({u"q"}, [] { return true; }), std::logic_error);
    }).join();
}

TEST(Iqm, TakesOldestFirstAcrossNamedQueuesAndLeavesOthers) {
    Iqm iqm;
    std::string order;
    for (const auto& [queue, tag] : {std::pair{u"a", '1'}, {u"c", '2'}, {u"b", '3'}, {u"a", '4'}}) {
        iqm.postDetached(queue, [&order, tag] { order += tag; });
    }
    EXPECT_TRUE(iqm.processOnce({u"a", u"b", u"unknown"}, std::nullopt));
    EXPECT_EQ(order, "134");
    EXPECT_EQ(iqm.pending(u"c"), 1u);
}

TEST(Iqm, RunsAtMostTheLimitAndNothingPostedDuringTheCall) {
    Iqm iqm;
    int ran = 0;
    std::function<void()> repost = [&] {
        ++ran;
        iqm.postDetached(u"q", repost);
    };
    iqm.postDetached(u"q", repost);
    iqm.postDetached(u"q", repost);
    EXPECT_FALSE(iqm.processOnce({u"q"}, 0));
    EXPECT_TRUE(iqm.processOnce({u"q"}, 1));
    EXPECT_EQ(ran, 1);
    iqm.runQueue(u"q", std::nullopt); // the second and the first one's repost
    EXPECT_EQ(ran, 3);
    EXPECT_EQ(iqm.pending(u"q"), 2u);
}

TEST(Iqm, ProcessUntilAsksBeforeSleepingAfterEachPieceAndOnEveryWake) {
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
}

TEST(Iqm, ProcessUntilReturnsByItsWakeBy) {
    Iqm iqm;
    const auto wakeBy = steadyNow() + 50ms;
    iqm.processUntil(
        {u"q"}, [] { return false; }, wakeBy);
    EXPECT_GE(steadyNow(), wakeBy);
    EXPECT_LT(steadyNow(), wakeBy + 2s);

    // The largest double is no wake-by at all; the lowest and NaN have passed.
    bool done = false;
    iqm.postDetached(u"q", [&] { done = true; });
    iqm.processUntil(
        {u"q"}, [&] { return done; }, steadyAt(std::numeric_limits<double>::max()));
    for (double at : {std::numeric_limits<double>::lowest(), std::nan("")}) {
        iqm.processUntil(
            {u"q"}, [] { return false; }, steadyAt(at));
    }
}

TEST(Iqm, ThrowingWorkReachesItsFutureOrTheDetachedHandler) {
    Iqm iqm;
    auto failed = iqm.post(u"q", [] { throw std::runtime_error("boom"); });
    std::vector<std::string> reported;
    iqm::setDetachedErrorHandler([&](std::exception_ptr error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            reported.push_back(e.what());
        }
    });
    iqm.postDetached(u"q", [] { throw std::logic_error("detached"); });
    auto succeeded = iqm.post(u"q", [] {});
    iqm.runQueue(u"q", std::nullopt);
    EXPECT_THROW(failed.get(), std::runtime_error);
    EXPECT_NO_THROW(succeeded.get());
    EXPECT_EQ(reported, std::vector<std::string>{"detached"});

    iqm::setDetachedErrorHandler({});
    iqm.postDetached(u"q", [] { throw std::runtime_error("to stderr"); });
    testing::internal::CaptureStderr();
    iqm.runQueue(u"q", std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error in queued work: to stderr\n");
}

TEST(Iqm, DestroyedWithQueuedWorkDropsItAndBreaksItsFutures) {
    bool ran = false;
    boost::future<void> future;
    {
        Iqm iqm;
        future = iqm.post(u"q", [&] { ran = true; });
        EXPECT_THROW(iqm.post(u"q", {}), std::invalid_argument);
    }
    EXPECT_FALSE(ran);
    EXPECT_THROW(future.get(), boost::broken_promise);
}
