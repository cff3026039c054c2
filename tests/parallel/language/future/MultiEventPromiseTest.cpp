// qz-test-label: concurrency
#include <parallel/language/future/MultiEventPromise.hpp>

#include <gtest/gtest.h>

#include <boost/numeric/conversion/bounds.hpp>
#include <boost/numeric/conversion/converter_policies.hpp>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <limits>
#include <optional>
#include <thread>
#include <tuple>
#include <vector>

namespace parallel::language::future {
namespace {

// Any is ready at the first event, All at the last; none expected is ready at
// once. Later events change nothing, and the future is handed out once.
TEST(MultiEventPromise, ReadyAtTheFirstOrLastEventOnceAndForAll) {
    for (auto [policy, expected, readyAfter] : {std::tuple{MultiEventPromise::Any, 5, 1},
                                                {MultiEventPromise::All, 3, 3},
                                                {MultiEventPromise::Any, 0, 0},
                                                {MultiEventPromise::All, 0, 0}}) {
        MultiEventPromise promise(policy, expected);
        boost::shared_future<void> future = promise.getFuture().share();
        int continuations = 0;
        future.then(boost::launch::sync, [&](boost::shared_future<void>) { ++continuations; });
        for (int events = 0; events <= expected; ++events) {
            EXPECT_EQ(future.is_ready(), events >= readyAfter) << policy << events;
            promise.setOne();
        }
        EXPECT_EQ(continuations, 1);
        EXPECT_NO_THROW(future.get());
        EXPECT_THROW(promise.getFuture(), boost::future_already_retrieved);
    }
    const unsigned long long largest = std::numeric_limits<long long>::max();
    EXPECT_NO_THROW(MultiEventPromise(MultiEventPromise::All, largest));
    EXPECT_THROW(MultiEventPromise(MultiEventPromise::All, largest + 1),
                 boost::numeric::positive_overflow);
    EXPECT_NO_THROW(MultiEventPromise(MultiEventPromise::Any, largest + 1));
}

TEST(MultiEventPromise, DestroyedBeforeReadyBreaksItsFuture) {
    auto promise = std::make_optional<MultiEventPromise>(MultiEventPromise::All, 2);
    const boost::shared_future<void> future = promise->getFuture().share();
    bool continuationRan = false;
    future.then(boost::launch::sync, [&](boost::shared_future<void>) { continuationRan = true; });
    promise->setOne();
    promise.reset();
    EXPECT_TRUE(continuationRan);
    ASSERT_TRUE(future.is_ready());
    EXPECT_THROW(future.get(), boost::broken_promise);
}

TEST(MultiEventPromise, ConcurrentEventsMakeItReadyExactlyOnce) {
    constexpr int kThreads = 8;
    constexpr int kEvents = 1000;
    for (int round = 0; round < 20; ++round) {
        MultiEventPromise promise(MultiEventPromise::All, kEvents);
        boost::shared_future<void> future = promise.getFuture().share();
        std::atomic<int> continuations{0};
        std::atomic<std::thread::id> readyOn{};
        future.then(boost::launch::sync, [&](boost::shared_future<void>) {
            ++continuations;
            readyOn = std::this_thread::get_id();
        });
        std::barrier start(kThreads);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                start.arrive_and_wait();
                // 1000 events in all, spread unevenly over the threads.
                const int mine = kEvents / kThreads + (t < kEvents % kThreads ? 1 : 0);
                for (int i = 0; i < mine; ++i) {
                    promise.setOne();
                }
            });
        }
        std::vector<std::thread::id> ids;
        for (auto& thread : threads) {
            ids.push_back(thread.get_id());
            thread.join();
        }
        ASSERT_TRUE(future.is_ready());
        ASSERT_EQ(continuations.load(), 1);
        // The continuation ran on the thread whose event completed the count.
        EXPECT_NE(std::find(ids.begin(), ids.end(), readyOn.load()), ids.end());
    }
}

} // namespace
} // namespace parallel::language::future
