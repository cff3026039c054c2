// qz-test-label: concurrency
#include "support/ContinuationSupport.hpp"

#include <parallel/language/future/AfterEachFuture.hpp>
#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include <localpool/LocalPool.hpp>

#include <string>
#include <thread>

namespace parallel::language::future {
namespace {

using namespace testing;

// The fixture takes the name of the class under test; `future::AfterEachFuture`
// names the class.
class AfterEachFuture : public ContinuationTest {
protected:
    std::shared_ptr<future::AfterEachFuture> afterEach(Futures predecessors) {
        return future::AfterEachFuture::build(nullptr, function.handle, 1, std::move(predecessors),
                                              {}, false);
    }
};

TEST_F(AfterEachFuture, AFailedPredecessorFailsOnlyItsOwnEntry) {
    TestFuture first, second, third;
    first.finishedWith({scalar(1)});
    second.failedWith(std::make_exception_ptr(errors::NoUnreadFutures()));
    third.finishedWith({scalar(3)});
    auto each = afterEach({first.future, second.future, third.future});
    runParallelQueue();

    ASSERT_EQ(function.calls->size(), 2u);
    EXPECT_EQ(each->getState(), FutureState::Finished);
    const PerTaskVariant<std::exception_ptr> errors = each->getError();
    ASSERT_TRUE(errors.isMulti());
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_FALSE(errors[0] || errors[2]);
    // The error names the predecessor (ContinuationTaskTest.cpp).
    EXPECT_EQ(envelopeOf(errors[1]).GetID(), "KORVEX:parallel:future:PrecedingExecutionErrors");

    EXPECT_EQ(firstOutput(*each, 0), 1.0);
    EXPECT_FALSE(each->getOutputs()[1].has_value());
    EXPECT_EQ(firstOutput(*each, 2), 3.0);
    try {
        FutureBase::fetchOutputs({each}, true, 1);
        FAIL() << "the failed entry was not raised";
    } catch (const KExceptionEnvelope& error) {
        EXPECT_EQ(error.GetID(), "KORVEX:parallel:future:ExecutionErrors");
        ASSERT_EQ(error.GetCauses().size(), 1u);
        EXPECT_EQ(error.GetCauses()[0].GetID(), "KORVEX:parallel:future:PrecedingExecutionErrors");
    }
}

TEST_F(AfterEachFuture, StateIsFoldedFromItsContinuations) {
    TestFuture early, late;
    early.finishedWith({scalar(1)});
    late.submitted();
    auto each = afterEach({early.future, late.future});
    EXPECT_TRUE(each->isMultiFuture());
    EXPECT_STREQ(each->getCosAliasName(), "parallel.AfterEachFuture");
    EXPECT_EQ(std::get<0>(FutureBase::fetchNext({each}, 1, Seconds(0))),
              FetchNextState::UnsupportedFutureType);
    EXPECT_EQ(each->getState(), FutureState::Queued); // released, not run

    runParallelQueue();
    ASSERT_EQ(function.calls->size(), 1u);
    EXPECT_EQ(each->getState(), FutureState::Running); // one done, one not started
    EXPECT_EQ(firstOutput(*each, 0), 1.0);
    EXPECT_FALSE(each->getOutputs()[1].has_value());
    EXPECT_EQ(valueOf(each->getInputs()[0].value().at(0).get()), 1.0);
    EXPECT_FALSE(each->getInputs()[1].has_value());

    std::thread([&] { late.finishedWith({scalar(2)}); }).join();
    EXPECT_EQ(each->getState(), FutureState::Running);
    runParallelQueue();
    EXPECT_EQ(each->getState(), FutureState::Finished);
    EXPECT_EQ(firstOutput(*each, 1), 2.0);
    EXPECT_EQ(valueOf(each->getInputs()[1].value().at(0).get()), 2.0);

    EXPECT_EQ(afterEach({})->getState(), FutureState::Finished);
}

TEST_F(AfterEachFuture, CancelStopsEveryContinuationNotYetFinished) {
    TestFuture done, released, pending;
    done.finishedWith({scalar(1)});
    pending.submitted();
    auto each = afterEach({done.future, released.future, pending.future});
    runParallelQueue();
    released.finishedWith({scalar(2)}); // its continuation waits in the queue

    each->cancel();
    EXPECT_EQ(each->getState(), FutureState::Finished);
    pending.finishedWith({scalar(3)});
    runParallelQueue();
    EXPECT_EQ(function.calls->size(), 1u);
    EXPECT_EQ(firstOutput(*each, 0), 1.0);
    const PerTaskVariant<std::exception_ptr> errors = each->getError();
    EXPECT_FALSE(errors[0]);
    for (std::size_t i : {1u, 2u}) {
        ASSERT_TRUE(errors[i]) << i;
        EXPECT_EQ(envelopeOf(errors[i]).GetID(), "parallel:fevalqueue:ExecutionCancelled");
    }
}

// Dropping the future leaves its continuations running; a predecessor that
// takes no continuation refuses the whole call.
TEST_F(AfterEachFuture, ContinuationsOutliveTheFutureAndAreMadeForAllOrNone) {
    TestFuture done, pending;
    done.finishedWith({scalar(1)});
    pending.submitted();
    EXPECT_THROW(afterEach({done.future, std::make_shared<UnavailableFuture>()}),
                 errors::ContinuationOnPending);
    auto each = afterEach({done.future, pending.future});
    const std::weak_ptr<future::AfterEachFuture> weak = each;
    each.reset();
    EXPECT_TRUE(weak.expired());

    runParallelQueue();
    std::thread([&] { pending.finishedWith({scalar(2)}); }).join();
    runParallelQueue();
    ASSERT_EQ(function.calls->size(), 2u);
    EXPECT_EQ(valueOf(function.calls->at(0).at(0).get()), 1.0);
    EXPECT_EQ(valueOf(function.calls->at(1).at(0).get()), 2.0);
}

TEST_F(AfterEachFuture, AThousandContinuationsOverPoolEvaluationsAllComplete) {
    constexpr int kCount = 1000;
    const auto twice = functionHandle("twice", [](std::size_t, const DvArrayVector& in) {
        return DvArrayVector{scalar(2 * valueOf(in.at(0).get()))};
    });
    localpool::LocalPool pool(3);
    Futures evaluations;
    for (int i = 0; i < kCount; ++i) {
        evaluations.push_back(pool.submit(twice, 1, {scalar(i)}));
    }
    auto each = afterEach(evaluations);

    ASSERT_TRUE(FutureBase::wait({each}, FutureState::Finished, kForever));
    EXPECT_EQ(function.calls->size(), std::size_t(kCount));
    EXPECT_FALSE(each->hasError());
    const DvArrayVector joined = FutureBase::fetchOutputs({each}, true, 1);
    const auto values = dvGetDoubles(joined.at(0).get());
    ASSERT_EQ(values.size(), std::size_t(kCount));
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(values[i], 2.0 * i) << i;
    }
}

} // namespace
} // namespace parallel::language::future
