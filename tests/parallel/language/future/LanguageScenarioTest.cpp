// qz-test-label: concurrency
// The language constructors on the local pool: what the language pool's
// creation class adds to the executor (its argument checks, evaluations on
// every worker, the queue object). Each property on its own is checked over
// test tasks (FuturePropertiesTest.cpp).
#include "support/LanguageTestSupport.hpp"

#include <executor/LanguageClasses.hpp>
#include <localpool/LocalPool.hpp>
#include <support/ErrorIds.hpp>

namespace parallel::language::future {
namespace {

using namespace testing;
using testsupport::thrownBy;
using Array = boost::intrusive_ptr<dvArray>;

class LanguageScenario : public LanguageTest {
protected:
    LanguageScenario() {
        executor::registerLanguageClasses();
        executor::setLanguagePool(pool);
    }
    ~LanguageScenario() override { executor::setLanguagePool(nullptr); }

    static bool waitFor(const dvArray* objects, FutureState state) {
        return FutureBase::wait(FutureBase::fromKorvexArray(objects), state, kGenerous);
    }

    std::shared_ptr<localpool::LocalPool> pool = std::make_shared<localpool::LocalPool>(4);
    const Array noop =
        functionHandle("noop", [](std::size_t, const DvArrayVector&) { return DvArrayVector{}; });
};

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
    EXPECT_EQ(textOf(dvGetCell(diary.get(), 3)), "hello from a worker\n");
    EXPECT_TRUE(isEmptyOfClass(property(f.get(), "Error").get(), "cell")); // no task failed
    const auto outputs = FutureBase::fetchOutputs(FutureBase::fromKorvexArray(f.get()), true, 1);
    ASSERT_EQ(dvGetNumberOfElements(outputs.at(0).get()), 4u);
    for (double value : dvGetDoubles(outputs.at(0).get())) {
        EXPECT_EQ(value, 42.0);
    }
}

TEST_F(LanguageScenario, BadArgumentsToTheConstructorsAreRefused) {
    const auto feval = [](std::vector<Array> args) {
        return thrownBy([&] { construct("parallel.FevalFuture", std::move(args)); });
    };
    EXPECT_EQ(feval({scalar(1), scalar(1)}), "KORVEX:executor:InvalidFunction");
    EXPECT_EQ(feval({noop, scalar(-1)}), "KORVEX:executor:InvalidNumOutputs");
    EXPECT_EQ(feval({noop, scalar(1.5)}), "KORVEX:executor:InvalidNumOutputs");
    EXPECT_EQ(feval({noop}), "KORVEX:minrhs");
    EXPECT_EQ(thrownBy([&] {
                  construct("parallel.AfterAllFuture", {noop, scalar(0)});
              }),
              "KORVEX:maxrhs"); // continuations are not built by the constructor
    executor::setLanguagePool(nullptr);
    EXPECT_EQ(feval({noop, scalar(0)}), "KORVEX:executor:NoPool");
}

TEST_F(LanguageScenario, FuturesHandedToAQueueAreListedThere) {
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
