// qz-test-label: concurrency
#include "support/FutureTestSupport.hpp"

#include "support/ErrorIds.hpp"

#include <algorithm>
#include <future>
#include <latch>
#include <stdexcept>
#include <thread>

namespace parallel::language::future {
namespace {

using namespace testing;

constexpr FutureState kAllStates[] = {FutureState::Pending, FutureState::Queued,
                                      FutureState::Running, FutureState::Finished,
                                      FutureState::Unavailable};

// Waiting for a state means waiting for it or any later one.
static_assert(std::is_sorted(std::begin(kAllStates), std::end(kAllStates)));

double seconds(const WallClockTimePoint& t) {
    return t.time_since_epoch().count();
}

void expectCancelledError(const OutputsOrError& outputs) {
    ASSERT_TRUE(outputs.hasError());
    EXPECT_EQ(testsupport::idOf(outputs.error()), "KORVEX:parallel:future:ExecutionCancelled");
}

TEST(TaskBase, LifecycleSetsStateTimesAndOutputs) {
    auto task = TestTask::make();
    // A new task knows nothing and never blocks.
    EXPECT_EQ(task->getState(), FutureState::Unavailable);
    EXPECT_EQ(task->getRunningDuration().count(), 0.0);
    for (FutureState target : kAllStates) {
        EXPECT_TRUE(task->wait(target, secondsFromNow(-1.0)));
    }
    task->doNotifyPending();
    EXPECT_EQ(task->getState(), FutureState::Pending);
    task->doNotifyQueued();
    EXPECT_EQ(task->getState(), FutureState::Queued);
    task->doNotifyRunning();
    EXPECT_EQ(task->getState(), FutureState::Running);
    EXPECT_GT(seconds(task->getStartTime()), 0.0);
    EXPECT_EQ(seconds(task->getFinishTime()), 0.0);

    EXPECT_FALSE(task->getOutputsOrError().value().has_value()); // no outputs, no error
    EXPECT_EQ(task->outputsCalls, 0);

    task->doNotifyFinished();
    EXPECT_EQ(task->getState(), FutureState::Finished);
    EXPECT_LE(seconds(task->getStartTime()), seconds(task->getFinishTime()));
    EXPECT_DOUBLE_EQ(task->getRunningDuration().count(),
                     seconds(task->getFinishTime()) - seconds(task->getStartTime()));
    EXPECT_TRUE(task->getOutputsOrError().value().has_value());
    EXPECT_EQ(task->outputsCalls, 1);
    EXPECT_TRUE(task->getWaitableFuture().is_ready());
}

TEST(TaskBase, WaitReturnsOnlyOnceTheTargetIsReached) {
    auto task = TestTask::make();
    task->doNotifyPending();
    std::latch waiting(1);
    auto waiter = std::async(std::launch::async, [&] {
        waiting.count_down();
        const bool running = task->wait(FutureState::Running, noDeadline());
        const FutureState seenAfterRunning = task->getState();
        const bool finished = task->wait(FutureState::Finished, secondsFromNow(60.0));
        return std::tuple(running, seenAfterRunning, finished, task->getState());
    });
    waiting.wait();
    task->doNotifyQueued();
    task->doNotifyRunning();
    task->doNotifyFinished();
    const auto [running, seenAfterRunning, finished, seenAfterFinished] = waiter.get();
    EXPECT_TRUE(running);
    EXPECT_GE(seenAfterRunning, FutureState::Running);
    EXPECT_TRUE(finished);
    EXPECT_EQ(seenAfterFinished, FutureState::Finished);
}

TEST(TaskBase, RequeueWaitsForTheNextStart) {
    auto task = TestTask::make();
    task->advanceTo(FutureState::Queued);
    int ranBeforeRequeue = 0;
    task->afterRunningThen(boost::launch::sync, [&] { ++ranBeforeRequeue; });
    task->doNotifyRunning();
    const double firstStart = seconds(task->getStartTime());
    EXPECT_EQ(ranBeforeRequeue, 1);

    task->doNotifyQueued();
    EXPECT_EQ(task->getState(), FutureState::Queued);
    int ranAfterRequeue = 0;
    task->afterRunningThen(boost::launch::sync, [&] { ++ranAfterRequeue; });
    EXPECT_EQ(ranAfterRequeue, 0);
    EXPECT_FALSE(task->wait(FutureState::Running, secondsFromNow(0.02)));

    task->doNotifyRunning();
    EXPECT_EQ(ranAfterRequeue, 1);
    EXPECT_EQ(ranBeforeRequeue, 1);
    EXPECT_TRUE(task->wait(FutureState::Running, secondsFromNow(-1.0)));
    EXPECT_GE(seconds(task->getStartTime()), firstStart);

    // A second start without a requeue is refused after updating the state.
    task->doNotifyFinished();
    EXPECT_THROW(task->doNotifyRunning(), boost::promise_already_satisfied);
    EXPECT_EQ(task->getState(), FutureState::Running);
}

TEST(TaskBase, CancelOfQueuedTaskFreezesItPastRunningWithoutTellingListeners) {
    auto listener = std::make_shared<CountingListener>();
    ScopedTaskFinishedListener registration{std::shared_ptr<TaskFinishedListener>(listener)};
    auto task = TestTask::make();
    task->advanceTo(FutureState::Queued);
    // A past deadline, or none that is a number, times out at once.
    EXPECT_FALSE(task->wait(FutureState::Running, secondsFromNow(-1.0)));
    EXPECT_FALSE(task->wait(FutureState::Finished,
                            SteadyTimePoint(Seconds(std::numeric_limits<double>::quiet_NaN()))));
    task->cancel();
    EXPECT_TRUE(task->wait(FutureState::Running, secondsFromNow(-1.0)));
    EXPECT_EQ(task->cancelCalls, 1);
    EXPECT_EQ(task->getState(), FutureState::Finished);
    EXPECT_EQ(task->getRunningDuration().count(), 0.0);
    EXPECT_EQ(listener->calls, 0);
    expectCancelledError(task->getOutputsOrError());
    EXPECT_EQ(task->outputsCalls, 0);

    const double finish = seconds(task->getFinishTime());
    task->doNotifyPendingAndQueued();
    task->doNotifyRunning();
    task->doNotifyFinished();
    EXPECT_EQ(task->getState(), FutureState::Finished);
    EXPECT_EQ(seconds(task->getStartTime()), 0.0);
    EXPECT_EQ(seconds(task->getFinishTime()), finish);
    // A finish after a cancel still tells the listeners.
    EXPECT_EQ(listener->calls, 1);
    expectCancelledError(task->getOutputsOrError());
}

// Even when the executor's cancel throws.
TEST(TaskBase, CancelStopsRunningWorkOnceAndNeverAFinishedTask) {
    auto task = TestTask::make();
    task->onCancel = [] { throw std::runtime_error("executor refused"); };
    task->advanceTo(FutureState::Running);
    task->cancel();
    EXPECT_EQ(task->cancelCalls, 1);
    EXPECT_EQ(task->getState(), FutureState::Finished);
    expectCancelledError(task->getOutputsOrError());
    task->cancel();
    EXPECT_EQ(task->cancelCalls, 1);

    auto finished = TestTask::make();
    finished->runToFinish();
    finished->cancel();
    EXPECT_EQ(finished->cancelCalls, 0);
    EXPECT_TRUE(finished->getOutputsOrError().hasValue());
    // The executor's own cancel after the finish hides the outputs.
    const double finish = seconds(finished->getFinishTime());
    finished->doNotifyCancelled();
    EXPECT_GE(seconds(finished->getFinishTime()), finish);
    expectCancelledError(finished->getOutputsOrError());
}

TEST(TaskBase, NotificationsInAnyOrderAreFollowed) {
    auto task = TestTask::make();
    task->doNotifyFinished();
    EXPECT_EQ(task->getState(), FutureState::Finished);
    task->doNotifyPending();
    EXPECT_EQ(task->getState(), FutureState::Pending);
    task->doNotifyFinished();
    task->doNotifyPendingAndQueued();
    EXPECT_EQ(task->getState(), FutureState::Queued);
    // The finished future became ready at the first finish and stays ready.
    EXPECT_TRUE(task->getWaitableFuture().is_ready());
    EXPECT_TRUE(task->wait(FutureState::Finished, secondsFromNow(-1.0)));
}

TEST(TaskBase, FinishCallbacksRunInTheNotifyingThreadOnceFinishedOrDestroyed) {
    auto finished = TestTask::make();
    finished->runToFinish();
    bool ranAtOnce = false;
    finished->afterFinishThen(boost::launch::sync, [&] { ranAtOnce = true; });
    EXPECT_TRUE(ranAtOnce);
    // Failing or empty callbacks reach nobody.
    EXPECT_NO_THROW(finished->afterFinishThen(boost::launch::sync,
                                              [] { throw std::runtime_error("callback failed"); }));
    EXPECT_NO_THROW(finished->afterFinishThen(boost::launch::sync, std::function<void()>()));
    EXPECT_NO_THROW(finished->afterRunningThen(boost::launch::sync, std::function<void()>()));

    auto task = TestTask::make();
    task->doNotifyRunning();
    std::thread::id ranOn;
    FutureState stateSeen = FutureState::Pending;
    task->afterFinishThen(boost::launch::sync, [&] {
        ranOn = std::this_thread::get_id();
        stateSeen = task->getState();
    });
    std::thread notifier([&] { task->doNotifyFinished(); });
    const std::thread::id notifierId = notifier.get_id();
    notifier.join();
    EXPECT_EQ(ranOn, notifierId);
    EXPECT_EQ(stateSeen, FutureState::Finished);

    auto cancelled = TestTask::make();
    bool ranOnCancel = false;
    cancelled->afterFinishThen(boost::launch::sync, [&] { ranOnCancel = true; });
    cancelled->cancel();
    EXPECT_TRUE(ranOnCancel);

    // Destroying an unfinished task runs its callbacks and breaks its promise.
    task = TestTask::make();
    task->doNotifyPending();
    bool finishCallback = false, runningCallback = false;
    task->afterFinishThen(boost::launch::sync, [&] { finishCallback = true; });
    task->afterRunningThen(boost::launch::sync, [&] { runningCallback = true; });
    boost::shared_future<void> waitable = task->getWaitableFuture();
    task.reset();
    EXPECT_TRUE(finishCallback && runningCallback);
    ASSERT_TRUE(waitable.is_ready());
    EXPECT_THROW(waitable.get(), boost::broken_promise);
}

} // namespace
} // namespace parallel::language::future
