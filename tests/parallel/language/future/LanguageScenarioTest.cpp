// qz-test-label: concurrency
// Futures driven from the language end to end: the module initialised,
// evaluations started through the constructors on a pool, properties read
// while the work runs and after it finished.
#include "support/LanguageTestSupport.hpp"

#include <localpool/LanguageClasses.hpp>

#include <latch>

namespace parallel::language::future {
namespace {

using namespace testing;
using Array = boost::intrusive_ptr<dvArray>;

// Each property on its own is checked over test tasks (FuturePropertiesTest.cpp).
class LanguageScenario : public LanguageTest {
protected:
    LanguageScenario() {
        localpool::registerLanguageClasses();
        localpool::setLanguagePool(pool);
    }
    ~LanguageScenario() override { localpool::setLanguagePool(nullptr); }

    bool waitFor(const dvArray* objects, FutureState state) {
        return FutureBase::wait(FutureBase::fromKorvexArray(objects), state, kGenerous);
    }

    std::shared_ptr<localpool::LocalPool> pool = std::make_shared<localpool::LocalPool>(4);
};

TEST_F(LanguageScenario, AnEvaluationReadWhileItRunsAndAfterItFinished) {
    std::latch started(1);
    std::latch release(1);
    const Array addOne = functionHandle("addOne", [&](std::size_t, const DvArrayVector& in) {
        kvm::print(u"adding\n");
        started.count_down();
        release.wait();
        return DvArrayVector{scalar(valueOf(in.at(0).get()) + 1)};
    });
    const auto f = construct("parallel.FevalFuture", {addOne, scalar(1), scalar(41)});
    ASSERT_EQ(std::string(dvGetClassName(f.get())), "parallel.Future");

    // Phase 1: running.
    started.wait();
    ASSERT_TRUE(waitFor(f.get(), FutureState::Running));
    EXPECT_EQ(propertyText(f.get(), "State"), "running");
    EXPECT_FALSE(dvGetLogicals(property(f.get(), "Read").get())[0]);
    EXPECT_GT(posixTime(property(f.get(), "StartDateTime").get()), 0.0);
    EXPECT_EQ(dvGetNumberOfElements(property(f.get(), "FinishDateTime").get()), 0u);
    const double runningSoFar = secondsOf(property(f.get(), "RunningDuration").get());

    // Phase 2: finished.
    release.count_down();
    ASSERT_TRUE(waitFor(f.get(), FutureState::Finished));
    EXPECT_EQ(propertyText(f.get(), "State"), "finished");
    const auto outputs = property(f.get(), "OutputArguments");
    ASSERT_EQ(dvGetNumberOfElements(outputs.get()), 1u);
    EXPECT_EQ(valueOf(dvGetCell(outputs.get(), 0)), 42.0);
    EXPECT_EQ(textOf(property(f.get(), "Diary").get()), "adding\n");
    EXPECT_GE(posixTime(property(f.get(), "FinishDateTime").get()),
              posixTime(property(f.get(), "StartDateTime").get()));
    EXPECT_GE(secondsOf(property(f.get(), "RunningDuration").get()), runningSoFar);

    // Phase 3: read.
    FutureBase::fetchOutputs(FutureBase::fromKorvexArray(f.get()), true, 1);
    EXPECT_TRUE(dvGetLogicals(property(f.get(), "Read").get())[0]);
}

TEST_F(LanguageScenario, AnEvaluationOnEveryWorker) {
    const Array whoAmI = functionHandle("whoAmI", [](std::size_t, const DvArrayVector& in) {
        kvm::print(u"hello from a worker\n");
        return DvArrayVector{scalar(valueOf(in.at(0).get()) * 2)};
    });
    const auto f = construct("parallel.FevalOnAllFuture", {whoAmI, scalar(1), scalar(21)});
    ASSERT_TRUE(waitFor(f.get(), FutureState::Finished));
    EXPECT_EQ(textOf(call("class", 1, {f.get()}).at(0).get()), "parallel.FevalOnAllFuture");

    const auto diary = property(f.get(), "Diary");
    ASSERT_EQ(dvGetDimensions(diary.get()), (matrix::Dimensions{1, 4}));
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(textOf(dvGetCell(diary.get(), i)), "hello from a worker\n");
    }
    // Every worker got the same inputs.
    EXPECT_EQ(valueOf(dvGetCell(property(f.get(), "InputArguments").get(), 0)), 21.0);
    EXPECT_EQ(dvGetDimensions(property(f.get(), "Error").get()), (matrix::Dimensions{0, 0}));

    const auto outputs = FutureBase::fetchOutputs(FutureBase::fromKorvexArray(f.get()), true, 1);
    ASSERT_EQ(dvGetNumberOfElements(outputs.at(0).get()), 4u);
    for (double value : dvGetDoubles(outputs.at(0).get())) {
        EXPECT_EQ(value, 42.0);
    }
}

TEST_F(LanguageScenario, BadArgumentsToTheConstructorsAreRefused) {
    const Array noop =
        functionHandle("noop", [](std::size_t, const DvArrayVector&) { return DvArrayVector{}; });
    EXPECT_ANY_THROW(construct("parallel.FevalFuture", {scalar(1), scalar(1)}));
    EXPECT_ANY_THROW(construct("parallel.FevalFuture", {noop, scalar(-1)}));
    EXPECT_ANY_THROW(construct("parallel.FevalFuture", {noop, scalar(1.5)}));
    EXPECT_ANY_THROW(construct("parallel.FevalFuture", {noop}));
    localpool::setLanguagePool(nullptr);
    EXPECT_ANY_THROW(construct("parallel.FevalFuture", {noop, scalar(0)}));
}

TEST_F(LanguageScenario, FuturesHandedToAQueueAreListedThere) {
    const Array noop =
        functionHandle("noop", [](std::size_t, const DvArrayVector&) { return DvArrayVector{}; });
    const auto queue = construct("parallel.FevalQueue");
    const auto a = construct("parallel.FevalFuture", {noop, scalar(0)});
    const auto b = construct("parallel.FevalFuture", {noop, scalar(0)});
    call("submit", 0, {a.get(), queue.get()});
    call("submit", 0, {b.get(), queue.get()});
    const auto listed = property(queue.get(), "Futures");
    EXPECT_TRUE(FutureBase::isEqual(FutureBase::fromKorvexArray(listed.get()),
                                    {futureOf(a.get()), futureOf(b.get())}));
    EXPECT_ANY_THROW(call("submit", 0, {a.get(), scalar(1).get()}));
    ASSERT_TRUE(waitFor(listed.get(), FutureState::Finished));
}

} // namespace
} // namespace parallel::language::future
