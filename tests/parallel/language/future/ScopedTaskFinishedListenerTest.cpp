// qz-test-label: concurrency
#include "support/FutureTestSupport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace parallel::language::future {
namespace {

using namespace testing;

void finishOneTask() {
    TestTask::make()->runToFinish();
}

TEST(ScopedTaskFinishedListener, HearsEveryFinishWhileItLivesOncePerRegistration) {
    auto listener = std::make_shared<CountingListener>();
    {
        ScopedTaskFinishedListener registration(listener);
        finishOneTask();
        finishOneTask();
        EXPECT_EQ(listener->calls, 2);
        ScopedTaskFinishedListener again(listener);
        finishOneTask();
        EXPECT_EQ(listener->calls, 4);
    }
    finishOneTask();
    EXPECT_EQ(listener->calls, 4);
    // The registry let go of its references.
    EXPECT_EQ(listener.use_count(), 1);
    EXPECT_THROW(ScopedTaskFinishedListener(std::shared_ptr<TaskFinishedListener>()),
                 std::invalid_argument);
}

TEST(ScopedTaskFinishedListener, ListenerRemovedDuringAPassIsStillCalledInIt) {
    auto first = std::make_shared<CountingListener>();
    auto second = std::make_shared<CountingListener>();
    ScopedTaskFinishedListener firstRegistration(first);
    std::optional<ScopedTaskFinishedListener> secondRegistration;
    secondRegistration.emplace(second);
    first->action = [&] { secondRegistration.reset(); };

    finishOneTask();
    EXPECT_EQ(first->calls, 1);
    EXPECT_EQ(second->calls, 1);
    first->action = nullptr;
    finishOneTask();
    EXPECT_EQ(first->calls, 2);
    EXPECT_EQ(second->calls, 1);
}

TEST(ScopedTaskFinishedListener, ListenerFailureReachesTheNotifyingExecutor) {
    auto failing = std::make_shared<CountingListener>();
    auto later = std::make_shared<CountingListener>();
    failing->action = [] { throw std::runtime_error("listener failed"); };
    ScopedTaskFinishedListener failingRegistration(failing);
    ScopedTaskFinishedListener laterRegistration(later);
    auto task = TestTask::make();
    task->doNotifyRunning();
    EXPECT_THROW(task->doNotifyFinished(), std::runtime_error);
    EXPECT_EQ(task->getState(), FutureState::Finished);
    EXPECT_EQ(later->calls, 0);
}

TEST(ScopedTaskFinishedListener, ConcurrentFinishesAndRegistrationsAreAllCounted) {
    constexpr int kFinishers = 3;
    constexpr int kTasksEach = 200;
    auto steady = std::make_shared<CountingListener>();
    ScopedTaskFinishedListener steadyRegistration(steady);
    std::barrier start(kFinishers + 1);
    std::atomic<bool> done{false};
    std::vector<std::thread> finishers;
    for (int t = 0; t < kFinishers; ++t) {
        finishers.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < kTasksEach; ++i) {
                finishOneTask();
            }
        });
    }
    std::thread churn([&] {
        start.arrive_and_wait();
        while (!done) {
            auto transient = std::make_shared<CountingListener>();
            ScopedTaskFinishedListener registration(transient);
        }
    });
    for (auto& finisher : finishers) {
        finisher.join();
    }
    done = true;
    churn.join();
    EXPECT_EQ(steady->calls, kFinishers * kTasksEach);
}

} // namespace
} // namespace parallel::language::future
