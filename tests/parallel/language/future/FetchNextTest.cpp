// qz-test-label: concurrency
#include "support/FutureTestSupport.hpp"

#include <parallel/language/future/FutureErrors.hpp>

#include <iqm/Iqm.hpp>

#include <latch>
#include <thread>

namespace parallel::language::future {
namespace {

using namespace testing;

// The errors and states the language sees are checked with its fetchNext
// method (FutureMethodsTest.cpp); these check what the method builds on.
class FetchNext : public InterpreterTest {};

FetchNextState stateOf(const std::tuple<FetchNextState, std::size_t, DvArrayVector>& result) {
    return std::get<0>(result);
}

// The first call on a vector walks it; later calls use what fetchNext
// remembers of it. Both wake when work finishes on another thread.
TEST_F(FetchNext, WakesWhenWorkFinishesOnAnotherThreadFirstAndLaterCalls) {
    TestFuture a, b, c;
    const Futures futures{a.running().future, b.running().future, c.running().future};
    std::latch firstWaits(1), secondWaits(1);
    std::thread finisher([&] {
        firstWaits.wait();
        c.task->doNotifyFinished();
        secondWaits.wait();
        b.task->doNotifyFinished();
    });
    // Queued work runs once the call waits, and lets the finisher go.
    const auto fetchOnceWaiting = [&](std::latch& waiting) {
        interpreter->getIqm()->postDetached(u"parallel", [&] { waiting.count_down(); });
        return FutureBase::fetchNext(futures, 1, kForever);
    };
    EXPECT_EQ(std::get<1>(fetchOnceWaiting(firstWaits)), 2u);
    EXPECT_EQ(std::get<1>(fetchOnceWaiting(secondWaits)), 1u);
    finisher.join();
    a.task->doNotifyFinished();
    EXPECT_EQ(std::get<1>(FutureBase::fetchNext(futures, 1, kForever)), 0u);
    EXPECT_EQ(stateOf(FutureBase::fetchNext(futures, 1, kForever)),
              FetchNextState::NoUnreadFutures);
}

// fetchNext knows a vector by where its elements are: one refilled in
// place with other futures is seen afresh.
TEST_F(FetchNext, SeesAVectorRefilledInPlaceAfresh) {
    Futures futures;
    futures.reserve(2);
    for (int round = 0; round < 3; ++round) {
        futures.clear();
        futures.push_back(TestFuture().finishedWith({scalar(round)}).future);
        futures.push_back(TestFuture().finishedWith({scalar(round)}).future);
        for (std::size_t expected : {0u, 1u}) {
            const auto [state, index, outputs] = FutureBase::fetchNext(futures, 1, kForever);
            ASSERT_EQ(state, FetchNextState::Fetched);
            EXPECT_EQ(index, expected);
            EXPECT_EQ(valueOf(outputs.at(0).get()), round);
        }
    }
}

TEST_F(FetchNext, RefusesTooManyOutputsAndOffersTheFutureAgain) {
    TestFuture f(1);
    f.finishedWith({scalar(5.0)});
    EXPECT_THROW(FutureBase::fetchNext({f.future}, 2, kForever), errors::TooManyOutputsRequested);
    EXPECT_FALSE(f.future->getRead());
    EXPECT_EQ(stateOf(FutureBase::fetchNext({f.future}, 1, kForever)), FetchNextState::Fetched);
}

} // namespace
} // namespace parallel::language::future
