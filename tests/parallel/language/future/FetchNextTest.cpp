// qz-test-label: concurrency
#include "support/FutureTestSupport.hpp"

#include <parallel/language/future/FutureErrors.hpp>

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

TEST_F(FetchNext, WakesWhenWorkFinishesOnAnotherThread) {
    TestFuture a;
    TestFuture b;
    a.running();
    b.running();
    b.task->result = OutputsOrError(std::optional<DvArrayVector>(DvArrayVector{scalar(7.0)}));
    std::latch waiting(1);
    std::thread finisher([&] {
        waiting.wait();
        b.task->doNotifyFinished();
    });
    waiting.count_down();
    auto [state, index, outputs] = FutureBase::fetchNext({a.future, b.future}, 1, kForever);
    EXPECT_EQ(state, FetchNextState::Fetched);
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(valueOf(outputs.at(0).get()), 7.0);
    finisher.join();
}

TEST_F(FetchNext, RefusesTooManyOutputsAndOffersTheFutureAgain) {
    TestFuture f(1);
    f.finishedWith({scalar(5.0)});
    try {
        FutureBase::fetchNext({f.future}, 2, kForever);
        FAIL() << "two outputs fetched from a one-output future";
    } catch (const errors::TooManyOutputsRequested& error) {
        ASSERT_EQ(error.get_arguments().size(), 2u);
        EXPECT_EQ(std::get<std::uint64_t>(error.get_arguments()[0]), 1u);
        EXPECT_EQ(std::get<std::uint64_t>(error.get_arguments()[1]), 2u);
    }
    EXPECT_FALSE(f.future->getRead());
    EXPECT_EQ(stateOf(FutureBase::fetchNext({f.future}, 1, kForever)), FetchNextState::Fetched);
}

} // namespace
} // namespace parallel::language::future
