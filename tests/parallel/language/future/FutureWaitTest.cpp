// qz-test-label: concurrency
#include "support/FutureTestSupport.hpp"

#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include <iqm/Iqm.hpp>

#include <latch>
#include <thread>

namespace parallel::language::future {
namespace {

using namespace testing;

class FutureWait : public InterpreterTest {};

TEST_F(FutureWait, RefusesFuturesThatCannotBeWaitedOnAndNeedsNoneToReturn) {
    TestFuture finished;
    finished.finishedWith({});
    TestFuture pending;
    pending.task->doNotifyPending();
    TestFuture unnotified; // a task that was never notified is unavailable
    EXPECT_THROW(
        FutureBase::wait({finished.future, pending.future}, FutureState::Finished, kForever),
        errors::WaitOnUnsubmittedFuture);
    EXPECT_THROW(FutureBase::wait({unnotified.future}, FutureState::Finished, kForever),
                 errors::WaitOnUnsubmittedFuture);
    auto invalid = std::make_shared<UnavailableFuture>();
    EXPECT_THROW(FutureBase::wait({finished.future, invalid}, FutureState::Finished, kForever),
                 errors::WaitOnUnavailableFuture);
    EXPECT_TRUE(FutureBase::wait({}, FutureState::Finished, Seconds(0.0)));
}

TEST_F(FutureWait, RunsQueuedInterpreterWorkWhileWaiting) {
    TestFuture f;
    f.running();
    // The work that finishes the future must run on this very thread.
    const std::shared_ptr<iqm::Iqm> queue = iqm::Iqm::getCurrent();
    std::thread poster(
        [&] { queue->postDetached(u"parallel", [&] { f.task->doNotifyFinished(); }); });
    EXPECT_TRUE(FutureBase::wait({f.future}, FutureState::Finished, kForever));
    poster.join();
}

// Ignored, the interrupt would leave the wait to time out, raising nothing;
// it may be requested before the wait or while it waits.
TEST_F(FutureWait, AUserInterruptFromAnotherThreadEndsTheWait) {
    TestFuture f;
    f.running();
    std::thread([&] { interpreter->requestInterrupt(); }).join();
    EXPECT_THROW(FutureBase::wait({f.future}, FutureState::Finished, kGenerous),
                 foundation::core::except::IMsgIDException);
    std::latch waiting(1);
    std::jthread interrupter([&] {
        waiting.wait();
        interpreter->requestInterrupt();
    });
    // Runs once the wait below processes the interpreter's queue.
    interpreter->getIqm()->postDetached(u"parallel", [&] { waiting.count_down(); });
    try {
        FutureBase::wait({f.future}, FutureState::Finished, kGenerous);
        FAIL() << "the wait ignored the interrupt";
    } catch (const foundation::core::except::IMsgIDException& interrupt) {
        EXPECT_EQ(interrupt.get_error_id(), "KORVEX:interrupted");
    }
    f.task->doNotifyFinished();
}

} // namespace
} // namespace parallel::language::future
