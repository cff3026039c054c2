// qz-test-label: concurrency
#include "support/ContinuationSupport.hpp"

#include <parallel/language/future/AfterAllFuture.hpp>

#include <localpool/LocalPool.hpp>

#include <stdexcept>
#include <thread>

namespace parallel::language::future {
namespace {

using namespace testing;

// Levels of chains dropped at once, where recursion of one frame per level
// overflowed the stack at 40,000 (10,000 under AddressSanitizer): chains of
// bare links, and shorter ones of continuations, which cost far more to run.
constexpr int kDroppedLinks = underSanitizer() ? 100'000 : 1'000'000;
constexpr int kDroppedContinuations = underSanitizer() ? 2'000 : 50'000;

// The fixture takes the name of the class under test; `future::AfterAllFuture`
// names the class.
class AfterAllFuture : public ContinuationTest {
protected:
    static std::shared_ptr<future::AfterAllFuture> afterAll(const RecordingFunction& function,
                                                            Futures predecessors) {
        return future::AfterAllFuture::build(nullptr, function.handle, 1, std::move(predecessors),
                                             {}, false);
    }
    static std::vector<double> valuesOf(const dvArray* array) {
        const auto values = dvGetDoubles(array);
        return {values.begin(), values.end()};
    }
};

TEST_F(AfterAllFuture, RunsOnceOnTheFirstOutputsOfAllItsPredecessors) {
    std::shared_ptr<future::AfterAllFuture> all;
    std::vector<FutureState> statesSeenInside;
    RecordingFunction recordingState([&](std::size_t, const DvArrayVector& inputs) {
        statesSeenInside.push_back(all->getState());
        return inputs;
    });
    TestFuture one(1), two(2);
    one.finishedWith({scalar(1)});
    two.submitted();
    all = afterAll(recordingState, {one.future, two.future});
    EXPECT_FALSE(all->isMultiFuture());
    EXPECT_STREQ(all->getCosAliasName(), "parallel.AfterAllFuture");
    EXPECT_EQ(all->getState(), FutureState::Queued);

    std::thread([&] { two.finishedWith({scalar(2), scalar(20)}); }).join();
    EXPECT_EQ(all->getState(), FutureState::Queued); // released, not run
    auto [state, index, outputs] = FutureBase::fetchNext({all}, 1, kForever);
    ASSERT_EQ(state, FetchNextState::Fetched);
    EXPECT_EQ(index, 0u);
    EXPECT_EQ(valuesOf(outputs.at(0).get()), (std::vector<double>{1, 2}));

    ASSERT_EQ(recordingState.calls->size(), 1u);
    ASSERT_EQ(recordingState.calls->at(0).size(), 1u);
    EXPECT_EQ(dvGetDimensions(recordingState.calls->at(0)[0].get()), (matrix::Dimensions{2, 1}));
    EXPECT_EQ(statesSeenInside, std::vector<FutureState>{FutureState::Running});
    EXPECT_EQ(all->getState(), FutureState::Finished);
    const std::optional<DvArrayVector> inputs = all->getInputs().getAsSingle();
    ASSERT_TRUE(inputs.has_value());
    ASSERT_EQ(inputs->size(), 1u);
    EXPECT_EQ(valuesOf(inputs->at(0).get()), (std::vector<double>{1, 2}));

    EXPECT_THROW(afterAll(function, {}), std::invalid_argument);
}

TEST_F(AfterAllFuture, AHundredLevelChainCompletesWhicheverWayItIsWaitedOn) {
    constexpr int kLevels = 100;
    RecordingFunction addOne([](std::size_t, const DvArrayVector& inputs) {
        return DvArrayVector{scalar(valueOf(inputs.at(0).get()) + 1)};
    });
    const auto identity =
        functionHandle("identity", [](std::size_t, const DvArrayVector& inputs) { return inputs; });
    localpool::LocalPool pool(2);
    // A chain of continuations, each on the previous one, on a pool evaluation.
    const auto chainOn = [&](double start) {
        std::shared_ptr<FutureBase> link = pool.submit(identity, 1, {scalar(start)});
        for (int level = 0; level < kLevels; ++level) {
            link = afterAll(addOne, {link});
        }
        return link;
    };

    auto [state, index, outputs] = FutureBase::fetchNext({chainOn(5)}, 1, kForever);
    ASSERT_EQ(state, FetchNextState::Fetched);
    EXPECT_EQ(valueOf(outputs.at(0).get()), 5.0 + kLevels);

    const std::shared_ptr<FutureBase> last = chainOn(7);
    ASSERT_TRUE(FutureBase::wait({last}, FutureState::Finished, kForever));
    EXPECT_EQ(valueOf(FutureBase::fetchOutputs({last}, true, 1).at(0).get()), 7.0 + kLevels);
    EXPECT_EQ(addOne.calls->size(), std::size_t(2 * kLevels));
}

// Each level holds the previous one's language object, so dropping the last
// level releases the whole chain: at once, or where the last one's language
// object goes, as when a continuation has run and the release of its
// arguments, queued for the interpreter, runs or is dropped with the
// interpreter's queue manager.
TEST_F(AfterAllFuture, AChainOfAnyLengthIsDroppedWithoutRecursion) {
    std::weak_ptr<FutureBase> firstLevel;
    const auto chain = [&](int levels, const auto& next) {
        TestFuture start;
        start.finishedWith({scalar(0)});
        std::shared_ptr<FutureBase> link = start.future;
        for (int level = 0; level < levels; ++level) {
            link = next(link);
            if (level == 0) {
                firstLevel = link;
            }
        }
        return link;
    };
    const auto links = [&] {
        return chain(kDroppedLinks,
                     [](const auto& link) { return std::make_shared<ChainLink>(Futures{link}); });
    };
    // Queues a release of the chain's last language object.
    const auto queueRelease = [&](std::shared_ptr<FutureBase> last) {
        const std::shared_ptr<dvArray> object(matrix::to_korvex(objects({std::move(last)})),
                                              matrix::destroyArray);
        interpreter->getIqm()->postDetached(u"serialQueueWork", [object] {});
    };
    const auto released = [&] { return firstLevel.expired(); };

    links();
    EXPECT_TRUE(released());

    const auto plusOne = functionHandle("plusOne", [](std::size_t, const DvArrayVector& inputs) {
        return DvArrayVector{scalar(valueOf(inputs.at(0).get()) + 1)};
    });
    std::shared_ptr<FutureBase> last = chain(kDroppedContinuations, [&](const auto& link) {
        return future::AfterAllFuture::build(nullptr, plusOne, 1, {link}, {}, false);
    });
    ASSERT_TRUE(FutureBase::wait({last}, FutureState::Finished, kForever));
    EXPECT_EQ(valueOf(FutureBase::fetchOutputs({last}, true, 1).at(0).get()),
              kDroppedContinuations);
    last.reset();
    EXPECT_FALSE(released());
    interpreter->getIqm()->processOnce({u"serialQueueWork"}, std::nullopt);
    EXPECT_TRUE(released());

    queueRelease(links());
    EXPECT_FALSE(released());
    interpreter.reset();
    EXPECT_TRUE(released());
}

TEST_F(AfterAllFuture, ADroppedFutureStillRunsItsFunction) {
    TestFuture pending;
    pending.submitted();
    auto all = afterAll(function, {pending.future});
    const std::weak_ptr<future::AfterAllFuture> weak = all;
    all.reset();
    EXPECT_TRUE(weak.expired());

    std::thread([&] { pending.finishedWith({scalar(4)}); }).join();
    EXPECT_TRUE(runParallelQueue());
    ASSERT_EQ(function.calls->size(), 1u);
    EXPECT_EQ(valueOf(function.calls->at(0).at(0).get()), 4.0);
}

} // namespace
} // namespace parallel::language::future
