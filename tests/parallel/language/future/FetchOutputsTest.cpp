// qz-test-label: concurrency
#include "support/FutureTestSupport.hpp"

#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/UnavailableFuture.hpp>

#include "support/ErrorIds.hpp"

#include <limits>
#include <thread>

namespace parallel::language::future {
namespace {

using namespace testing;

class FetchOutputs : public InterpreterTest {
protected:
    // Three finished futures with outputs 1, 2 and 3.
    Futures threeNumbers() {
        Futures futures;
        for (double value : {1.0, 2.0, 3.0}) {
            TestFuture f;
            f.finishedWith({scalar(value)});
            futures.push_back(f.future);
        }
        return futures;
    }

    // The envelope that fetching the outputs of `futures` raises.
    static KExceptionEnvelope errorOf(const Futures& futures) {
        try {
            FutureBase::fetchOutputs(futures, true, 1);
        } catch (const KExceptionEnvelope& error) {
            return error;
        }
        ADD_FAILURE() << "no error raised";
        return KExceptionEnvelope("none", u"");
    }

    static std::shared_ptr<FutureBase> failed(std::exception_ptr error) {
        TestFuture f;
        f.failedWith(std::move(error));
        return f.future;
    }
};

TEST_F(FetchOutputs, ConcatenatesOrGathersInVectorOrder) {
    const Futures futures = threeNumbers();
    const DvArrayVector joined = FutureBase::fetchOutputs(futures, true, 1);
    ASSERT_EQ(joined.size(), 1u);
    EXPECT_EQ(dvGetDimensions(joined[0].get()), (matrix::Dimensions{3, 1}));
    const auto values = dvGetDoubles(joined[0].get());
    EXPECT_EQ(std::vector<double>(values.begin(), values.end()), (std::vector<double>{1, 2, 3}));

    const DvArrayVector cells = FutureBase::fetchOutputs(futures, false, 1);
    EXPECT_EQ(dvGetClassID(cells[0].get()), matrix::ClassID::Cell);
    EXPECT_EQ(dvGetDimensions(cells[0].get()), (matrix::Dimensions{3, 1}));
    EXPECT_EQ(valueOf(dvGetCell(cells[0].get(), 2)), 3.0);
    for (const auto& future : futures) {
        EXPECT_TRUE(future->getRead());
    }
    EXPECT_TRUE(FutureBase::fetchOutputs(futures, true, 0).empty());
}

TEST_F(FetchOutputs, FailuresAreTheCausesEqualOnesFoldedAndEveryFutureIsRead) {
    Futures futures = threeNumbers();
    futures[1] = failed(std::make_exception_ptr(errors::NoUnreadFutures()));
    const KExceptionEnvelope error = errorOf(futures);
    EXPECT_EQ(error.GetID(), "KORVEX:parallel:future:ExecutionErrors");
    ASSERT_EQ(error.GetCauses().size(), 1u);
    EXPECT_EQ(error.GetCauses()[0].GetID(), "KORVEX:parallel:future:NoUnreadFutures");
    for (const auto& future : futures) {
        EXPECT_TRUE(future->getRead());
    }

    const auto same = [] { return std::make_exception_ptr(std::runtime_error("same")); };
    EXPECT_EQ(errorOf({failed(same()), failed(same()), failed(same())}).GetCauses().size(), 1u);

    const KExceptionEnvelope different =
        errorOf({failed(same()), failed(std::make_exception_ptr(errors::TimeOutInvalid()))});
    ASSERT_EQ(different.GetCauses().size(), 2u);
    EXPECT_EQ(different.GetCauses()[0].GetID(), "KORVEX:parallel:future:StdException");
    EXPECT_EQ(different.GetCauses()[1].GetID(), "KORVEX:parallel:future:TimeOutInvalid");
}

TEST_F(FetchOutputs, ConcatenationFailureCarriesItsCause) {
    TestFuture number, word;
    number.finishedWith({scalar(1.0)});
    word.finishedWith({testing::text("abc")});
    const KExceptionEnvelope error = errorOf({number.future, word.future});
    EXPECT_EQ(error.GetID(), "KORVEX:parallel:future:FetchOutputsConcatenationFailed");
    ASSERT_EQ(error.GetCauses().size(), 1u);
    EXPECT_EQ(error.GetCauses()[0].GetID().rfind("KORVEX:catenate:", 0), 0u);
    EXPECT_TRUE(number.future->getRead());
}

TEST_F(FetchOutputs, RefusesUnavailableFuturesAndTooManyOutputsBeforeWaiting) {
    TestFuture running, two(2);
    running.running();
    two.running();
    auto invalid = std::make_shared<UnavailableFuture>();
    EXPECT_THROW(FutureBase::fetchOutputs({running.future, invalid}, true, 1),
                 errors::FetchOutputsOnUnavailableFuture);
    // Above the fewest outputs any future has (none without futures),
    // before the count sizes anything.
    const auto tooMany = [](const Futures& futures, unsigned int count) {
        return testsupport::thrownBy([&] { FutureBase::fetchOutputs(futures, true, count); }) ==
               "KORVEX:parallel:future:TooManyOutputsRequested";
    };
    EXPECT_TRUE(tooMany({running.future, two.future}, 2));
    EXPECT_TRUE(tooMany({two.future}, std::numeric_limits<unsigned int>::max()));
    EXPECT_TRUE(tooMany({}, 1));
    EXPECT_TRUE(FutureBase::fetchOutputs({}, true, 0).empty());
    EXPECT_FALSE(running.future->getRead());
    EXPECT_FALSE(two.future->getRead());
}

TEST_F(FetchOutputs, WaitsForWorkThatAnotherThreadFinishes) {
    TestFuture running;
    running.running();
    running.task->result = OutputsOrError(std::optional<DvArrayVector>(DvArrayVector{scalar(4)}));
    std::jthread finisher([&] { running.task->doNotifyFinished(); });
    EXPECT_EQ(valueOf(FutureBase::fetchOutputs({running.future}, true, 1).at(0).get()), 4.0);
}

} // namespace
} // namespace parallel::language::future
