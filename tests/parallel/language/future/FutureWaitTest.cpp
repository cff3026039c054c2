// qz-test-label: concurrency
#include "FutureTestSupport.hpp"

#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include <iqm/Iqm.hpp>

#include <future>
#include <latch>
#include <limits>
#include <thread>

namespace parallel::language::future {
namespace {

using testing::TestFuture;
using Futures = std::vector<std::shared_ptr<FutureBase>>;

constexpr double kForever = std::numeric_limits<double>::infinity();

class FutureWait : public testing::InterpreterTest {};

double elapsedSince(const SteadyTimePoint& start) {
    return (clock::getCurrentSteadyTime() - start).count();
}

TEST_F(FutureWait, RefusesFuturesThatCannotBeWaitedOn) {
    TestFuture finished;
    finished.finishedWith({});
    TestFuture pending;
    pending.task->doNotifyPending();
    TestFuture unnotified; // a task that was never notified is unavailable
    EXPECT_THROW(FutureBase::wait({finished.future, pending.future}, FutureState::Finished,
                                  Seconds(kForever)),
                 errors::WaitOnUnsubmittedFuture);
    EXPECT_THROW(FutureBase::wait({unnotified.future}, FutureState::Finished, Seconds(kForever)),
                 errors::WaitOnUnsubmittedFuture);
    auto invalid = std::make_shared<UnavailableFuture>();
    EXPECT_THROW(
        FutureBase::wait({finished.future, invalid}, FutureState::Finished, Seconds(kForever)),
        errors::WaitOnUnavailableFuture);
}

TEST_F(FutureWait, ZeroTimeoutIsAPoll) {
    EXPECT_TRUE(FutureBase::wait({}, FutureState::Finished, Seconds(0.0)));
    TestFuture running;
    running.running();
    TestFuture finished;
    finished.finishedWith({});
    EXPECT_FALSE(
        FutureBase::wait({finished.future, running.future}, FutureState::Finished, Seconds(0.0)));
    EXPECT_TRUE(
        FutureBase::wait({finished.future, running.future}, FutureState::Running, Seconds(0.0)));
    EXPECT_TRUE(FutureBase::wait({finished.future}, FutureState::Running, Seconds(0.0)));
    const SteadyTimePoint start = clock::getCurrentSteadyTime();
    EXPECT_FALSE(FutureBase::wait({running.future}, FutureState::Finished, Seconds(0.05)));
    EXPECT_GE(elapsedSince(start), 0.04);
}

TEST_F(FutureWait, ReturnsWhenOtherThreadsFinishTheWork) {
    TestFuture a;
    TestFuture b;
    a.running();
    b.running();
    std::latch waiting(1);
    std::thread finisher([&] {
        waiting.wait();
        b.task->doNotifyFinished();
        a.task->doNotifyFinished();
    });
    waiting.count_down();
    EXPECT_TRUE(FutureBase::wait({a.future, b.future}, FutureState::Finished, Seconds(kForever)));
    EXPECT_EQ(a.future->getState(), FutureState::Finished);
    EXPECT_EQ(b.future->getState(), FutureState::Finished);
    finisher.join();
}

TEST_F(FutureWait, RunsQueuedInterpreterWorkWhileWaiting) {
    TestFuture f;
    f.running();
    // The work that finishes the future must run on this very thread.
    const std::shared_ptr<iqm::Iqm> queue = iqm::Iqm::getCurrent();
    std::thread poster(
        [&] { queue->postDetached(u"parallel", [&] { f.task->doNotifyFinished(); }); });
    EXPECT_TRUE(FutureBase::wait({f.future}, FutureState::Finished, Seconds(kForever)));
    poster.join();
}

TEST_F(FutureWait, AUserInterruptEndsAnEndlessWaitWithinAboutASecond) {
    TestFuture f;
    f.running();
    SteadyTimePoint requested;
    std::thread interrupter([&] {
        requested = clock::getCurrentSteadyTime();
        interpreter->requestInterrupt();
    });
    interrupter.join();
    try {
        FutureBase::wait({f.future}, FutureState::Finished, Seconds(kForever));
        FAIL() << "the wait ignored the interrupt";
    } catch (const foundation::core::except::IMsgIDException& interrupt) {
        EXPECT_EQ(interrupt.get_error_id(), "KORVEX:interrupted");
    }
    EXPECT_LT(elapsedSince(requested), 5.0);
    f.task->doNotifyFinished();
}

TEST_F(FutureWait, AnInterruptFromAnotherThreadReachesAWaitInProgress) {
    TestFuture f;
    f.running();
    std::promise<SteadyTimePoint> requested;
    std::thread interrupter([&] {
        requested.set_value(clock::getCurrentSteadyTime());
        interpreter->requestInterrupt();
    });
    EXPECT_ANY_THROW(FutureBase::wait({f.future}, FutureState::Finished, Seconds(kForever)));
    EXPECT_LT(elapsedSince(requested.get_future().get()), 5.0);
    interrupter.join();
}

} // namespace
} // namespace parallel::language::future
