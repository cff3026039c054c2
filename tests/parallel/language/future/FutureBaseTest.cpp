#include "support/FutureTestSupport.hpp"

#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include "support/ErrorIds.hpp"

#include <limits>

namespace parallel::language::future {
namespace {

using namespace testing;

TEST(FutureBase, IdsCountUpAndAnExplicitIdDrawsNone) {
    TestFuture first, second;
    EXPECT_EQ(second.future->getID(), first.future->getID() + 1);
    FevalFuture chosen(nullptr, nullptr, 0, {}, TestTask::make(), 1000);
    EXPECT_EQ(chosen.getID(), 1000);
    TestFuture third;
    EXPECT_EQ(third.future->getID(), second.future->getID() + 1);
}

// Order and equal IDs are compared through the language (FutureMethodsTest.cpp).
TEST(FutureBase, VectorsOfOtherLengthsDifferAndUnavailableFuturesAreEqual) {
    const std::shared_ptr<FutureBase> f = TestFuture().future;
    EXPECT_FALSE(FutureBase::isEqual({f}, {f, f}));
    EXPECT_TRUE(FutureBase::isEqual({std::make_shared<UnavailableFuture>()},
                                    {std::make_shared<UnavailableFuture>("parallel.FevalFuture")}));
}

// The method checks these first (FutureMethodsTest.cpp); called directly,
// fetchOutputs refuses them too, before waiting or sizing anything.
TEST(FutureBase, FetchOutputsRefusesUnavailableFuturesAndTooManyOutputsUnread) {
    TestFuture running, two(2);
    running.running();
    two.running();
    const auto refusal = [](const Futures& futures, unsigned int count) {
        return testsupport::thrownBy([&] { FutureBase::fetchOutputs(futures, true, count); });
    };
    const std::string tooMany = "KORVEX:parallel:future:TooManyOutputsRequested";
    EXPECT_EQ(refusal({running.future, std::make_shared<UnavailableFuture>()}, 1),
              "KORVEX:parallel:future:FetchOutputsOnUnavailableFuture");
    EXPECT_EQ(refusal({running.future, two.future}, 2), tooMany);
    EXPECT_EQ(refusal({two.future}, std::numeric_limits<unsigned int>::max()), tooMany);
    EXPECT_EQ(refusal({}, 1), tooMany); // none without futures
    EXPECT_TRUE(FutureBase::fetchOutputs({}, true, 0).empty());
    EXPECT_FALSE(running.future->getRead() || two.future->getRead());
}

TEST(FutureBase, OutputsAreCachedOnceFinishedAndReadBackAsIndependentValues) {
    TestFuture f(2);
    f.running(); // nothing is read or cached before the work finishes
    EXPECT_FALSE(f.future->hasError());
    EXPECT_FALSE(f.future->getOutputs().getAsSingle().has_value());
    EXPECT_EQ(f.future->getError().getAsSingle(), nullptr);
    EXPECT_EQ(f.future->getOutputsAsDvArray(), nullptr);
    EXPECT_EQ(f.task->outputsCalls, 0);
    f.task->result = OutputsOrError(DvArrayVector{scalar(1.0), scalar(2.0)});
    f.task->doNotifyFinished();
    const DvArrayVector outputs = f.future->getOutputs().getAsSingle().value();
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_EQ(valueOf(outputs[1].get()), 2.0);
    dvGetMutableDoubles(outputs[0].get())[0] = 99.0;
    EXPECT_EQ(valueOf(f.future->getOutputs().getAsSingle()->at(0).get()), 1.0);
    EXPECT_FALSE(f.future->hasError());
    EXPECT_EQ(valueOf(dvGetCell(f.future->getOutputsAsDvArray().get(), 1)), 2.0);
    EXPECT_EQ(f.task->outputsCalls, 1);
    // One task's outputs in cells of their own (concatenated: FutureMethodsTest.cpp).
    const DvArrayVector cells = f.future->getOutputsAs(2, OutputFormat::Cell);
    ASSERT_EQ(cells.size(), 2u);
    EXPECT_EQ(dvGetDimensions(cells[1].get()), (matrix::Dimensions{1, 1}));
    EXPECT_EQ(valueOf(dvGetCell(cells[1].get(), 0)), 2.0);
}

TEST(FutureBase, ErrorsAreReturnedNeverThrown) {
    TestFuture f;
    f.failedWith(std::make_exception_ptr(errors::NoUnreadFutures()));
    EXPECT_TRUE(f.future->hasError());
    EXPECT_FALSE(f.future->getOutputs().getAsSingle().has_value());
    EXPECT_EQ(f.future->getOutputsAsDvArray(), nullptr);
    // The error itself is read through fetchOutputs and the Error property.
    // Outputs of failed work are left out of both forms.
    EXPECT_EQ(f.future->getOutputsAs(1, OutputFormat::Concatenated)[0], nullptr);
    EXPECT_EQ(dvGetNumberOfElements(f.future->getOutputsAs(1, OutputFormat::Cell)[0].get()), 0u);
}

TEST(FutureBase, TimesComeFromTheWork) {
    auto task = TestTask::make();
    task->doNotifyRunning();
    FevalFuture f(nullptr, nullptr, 0, {}, task);
    // The work started before the future existed.
    EXPECT_EQ(f.getCreateTime(), task->getStartTime());
    EXPECT_GT(f.getRunningDuration().count(), 0.0);
    task->doNotifyFinished();
    const Seconds fixed = f.getRunningDuration();
    EXPECT_EQ(f.getRunningDuration(), fixed);
    EXPECT_EQ(TestFuture().future->getRunningDuration().count(), 0.0);
}

TEST(FevalFuture, ForwardsToItsOneTaskAndKeepsItAlive) {
    std::weak_ptr<TestTask> watch;
    std::shared_ptr<FevalFuture> future;
    {
        TestFuture f;
        watch = f.task;
        future = f.future;
        EXPECT_EQ(future->getTask(), f.task);
    }
    EXPECT_FALSE(watch.expired());
    EXPECT_EQ(future->getState(), FutureState::Unavailable);
    auto task = watch.lock();
    task->diary = u"printed";
    task->runToFinish();
    EXPECT_EQ(future->getState(), FutureState::Finished);
    EXPECT_FALSE(future->getDiary().isMulti());
    EXPECT_EQ(future->getDiary().getAsSingle(), u"printed");
    future->cancel();
    EXPECT_EQ(task->cancelCalls, 0);
}

} // namespace
} // namespace parallel::language::future
