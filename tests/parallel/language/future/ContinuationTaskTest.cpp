#include "support/ContinuationSupport.hpp"

#include <parallel/language/future/AfterAllFuture.hpp>
#include <parallel/language/future/ContinuationTask.hpp>
#include <parallel/language/future/FutureErrors.hpp>

#include "support/ErrorIds.hpp"

#include <functional>
#include <limits>
#include <map>
#include <string>

namespace parallel::language::future {
namespace {

using namespace testing;

class ContinuationTaskTest : public ContinuationTest {
protected:
    std::shared_ptr<ContinuationTask> after(Futures predecessors, std::size_t numOutputs = 1,
                                            bool passFuture = false,
                                            std::vector<std::size_t> size = {}) {
        return ContinuationTask::build(function.handle, numOutputs, std::move(predecessors),
                                       std::move(size), passFuture);
    }

    // The error of a finished task, as the language sees it.
    static KExceptionEnvelope errorOf(ContinuationTask& task) {
        const OutputsOrError result = task.getOutputsOrError();
        EXPECT_TRUE(result.hasError());
        return envelopeOf(result.error());
    }
};

TEST_F(ContinuationTaskTest, RunsAfterTheLastPredecessorOnTheInterpreterThread) {
    TestFuture first, second;
    first.finishedWith({scalar(1)}); // one finished already is not enough
    second.submitted();
    auto task = after({first.future, second.future});
    EXPECT_EQ(task->getState(), FutureState::Queued);
    EXPECT_FALSE(runParallelQueue());
    EXPECT_TRUE(function.calls->empty());

    std::thread([&] { second.finishedWith({scalar(2)}); }).join();
    EXPECT_EQ(task->getState(), FutureState::Queued); // released, not run yet
    EXPECT_TRUE(runParallelQueue());
    ASSERT_EQ(function.calls->size(), 1u);
    EXPECT_EQ(task->getState(), FutureState::Finished);
    EXPECT_GT(task->getStartTime().time_since_epoch().count(), 0.0);
    EXPECT_EQ(task->getDiary(), u"");
    EXPECT_EQ(dvGetDimensions(task->getOutputsOrError().value()->at(0).get()),
              (matrix::Dimensions{2, 1}));
}

TEST_F(ContinuationTaskTest, IsReleasedInsideBuildWhenAllHadFinishedAndHandsItsInputsOutOnce) {
    const auto done = TestFuture().finishedWith({scalar(5)}).future;
    auto task = after({done});
    EXPECT_EQ(iqm::Iqm::getCurrent()->pending(u"parallel"), 1u);
    EXPECT_TRUE(task->takeInputs().empty());
    EXPECT_TRUE(runParallelQueue());
    EXPECT_EQ(valueOf(task->getOutputsOrError().value()->at(0).get()), 5.0);
    const DvArrayVector inputs = task->takeInputs();
    ASSERT_EQ(inputs.size(), 1u);
    EXPECT_EQ(valueOf(inputs[0].get()), 5.0);
    EXPECT_TRUE(task->takeInputs().empty());
}

TEST_F(ContinuationTaskTest, ArgumentsAreTheFewestOutputsConcatenatedAcrossPredecessors) {
    TestFuture two(2);
    two.finishedWith({scalar(1), scalar(2)});
    after({two.future}, 0);
    runParallelQueue();
    ASSERT_EQ(function.calls->size(), 1u);
    ASSERT_EQ(function.calls->at(0).size(), 2u); // one predecessor: as they are
    EXPECT_EQ(valueOf(function.calls->at(0)[1].get()), 2.0);

    TestFuture a(2), b(1), c(3);
    a.finishedWith({scalar(1), scalar(10)});
    b.finishedWith({scalar(2)});
    c.finishedWith({scalar(3), scalar(30), scalar(300)});
    after({a.future, b.future, c.future}, 0);
    runParallelQueue();
    ASSERT_EQ(function.calls->size(), 2u);
    const DvArrayVector& arguments = function.calls->at(1);
    ASSERT_EQ(arguments.size(), 1u);
    const auto column = dvGetDoubles(arguments[0].get());
    EXPECT_EQ(std::vector<double>(column.begin(), column.end()), (std::vector<double>{1, 2, 3}));
}

// Failed predecessors are named; outputs that do not concatenate are the error too.
TEST_F(ContinuationTaskTest, FailedOrMismatchedPredecessorsAreTheErrorAndTheFunctionNeverRuns) {
    auto failedTask = [](long long id) {
        auto task = TestTask::make();
        auto future = std::make_shared<FevalFuture>(nullptr, nullptr, 1, DvArrayVector{}, task, id);
        task->result = OutputsOrError(std::make_exception_ptr(errors::NoUnreadFutures()));
        task->runToFinish();
        return future;
    };
    const auto fine = TestFuture().finishedWith({scalar(1)}).future;
    const auto word = TestFuture().finishedWith({text("ab")}).future;
    auto task = after({failedTask(7), fine, failedTask(12)});
    auto mismatched = after({fine, word});
    while (runParallelQueue()) {
    }
    EXPECT_TRUE(function.calls->empty());
    EXPECT_EQ(task->getState(), FutureState::Finished);
    EXPECT_EQ(task->getStartTime().time_since_epoch().count(), 0.0);
    const KExceptionEnvelope error = errorOf(*task);
    EXPECT_EQ(error.GetID(), "KORVEX:parallel:future:PrecedingExecutionErrors");
    EXPECT_EQ(error.GetArguments(), foundation::core::except::MessageArguments{u"7,12"});
    ASSERT_EQ(error.GetCauses().size(), 2u);
    EXPECT_EQ(error.GetCauses()[1].GetID(), "KORVEX:parallel:future:NoUnreadFutures");
    const KExceptionEnvelope mismatch = errorOf(*mismatched);
    EXPECT_EQ(mismatch.GetID(), "KORVEX:parallel:future:PrecedingOutputsConcatenationFailed");
    ASSERT_EQ(mismatch.GetCauses().size(), 1u);
    EXPECT_EQ(mismatch.GetCauses()[0].GetID(), "KORVEX:catenate:classMismatch");
}

TEST_F(ContinuationTaskTest, PassFutureGivesThePredecessorsShapedEvenWhenTheyFailed) {
    std::vector<TestFuture> predecessors(4);
    Futures futures;
    for (auto& predecessor : predecessors) {
        predecessor.finishedWith({scalar(1)});
        futures.push_back(predecessor.future);
    }
    predecessors[2].task->result =
        OutputsOrError(std::make_exception_ptr(errors::NoUnreadFutures()));
    auto task = after(futures, 1, true, {2, 2});
    runParallelQueue();
    ASSERT_EQ(function.calls->size(), 1u);
    const dvArray* argument = function.calls->at(0).at(0).get();
    EXPECT_EQ(dvGetDimensions(argument), (matrix::Dimensions{2, 2}));
    EXPECT_TRUE(FutureBase::isEqual(FutureBase::fromKorvexArray(argument), futures));
    EXPECT_TRUE(task->getOutputsOrError().hasValue());
}

TEST_F(ContinuationTaskTest, FunctionErrorIsTheTaskErrorAndAHugeCountAllocatesNothing) {
    RecordingFunction failing([](std::size_t, const DvArrayVector&) -> DvArrayVector {
        throw KExceptionEnvelope("user:failure", u"it failed");
    });
    const auto done = TestFuture().finishedWith({scalar(1)}).future;
    auto task = ContinuationTask::build(failing.handle, 1, {done}, {}, false);
    // More outputs than any function gives: the function's answer decides.
    auto huge = after({done}, std::numeric_limits<unsigned int>::max());
    runParallelQueue();
    EXPECT_GT(task->getStartTime().time_since_epoch().count(), 0.0);
    EXPECT_EQ(errorOf(*task).GetID(), "user:failure");
    EXPECT_EQ(errorOf(*huge).GetID(), "KORVEX:maxlhs");
}

TEST_F(ContinuationTaskTest, CancelledBeforeItRanItNeverRuns) {
    TestFuture pending, done;
    pending.submitted();
    done.finishedWith({scalar(1)});
    auto held = after({pending.future});
    auto queued = after({done.future});
    held->cancel();
    queued->cancel();
    pending.finishedWith({scalar(1)});
    runParallelQueue();
    EXPECT_TRUE(function.calls->empty());
    for (const auto& task : {held, queued}) {
        EXPECT_EQ(task->getState(), FutureState::Finished);
        EXPECT_EQ(errorOf(*task).GetID(), "parallel:fevalqueue:ExecutionCancelled");
    }
}

// Each continuation waits while the interpreter has more of them queued: a
// wait runs the next one inside itself until work is nested as deep as the
// queue manager lets it. There, a wait for work that runs elsewhere blocks
// and answers as usual; a wait for a continuation, which could never run, is
// the typed nesting error (the first one lets that continuation's predecessor
// finish, so the waits above it end finished).
TEST_F(ContinuationTaskTest, ContinuationsThatWaitNestNoDeeperThanTheLimit) {
    using Answers = std::map<std::string, std::size_t>;
    TestFuture running, done;
    running.running();
    done.finishedWith({scalar(1)});
    // Queues `count` continuations that each make `wait` once, runs them all,
    // and counts their answers (an error by its identifier).
    const auto answersOf = [&](std::size_t count, std::function<std::string()> wait) {
        Answers answers;
        std::size_t finished = 0;
        const auto waiter = functionHandle("waiter", [&](std::size_t, const DvArrayVector&) {
            std::string answer;
            try {
                answer = wait();
            } catch (...) {
                answer = testsupport::idOf(std::current_exception());
            }
            ++answers[answer];
            ++finished;
            return DvArrayVector{};
        });
        for (std::size_t i = 0; i < count; ++i) {
            ContinuationTask::build(waiter, 0, {done.future}, {}, false);
        }
        interpreter->getIqm()->processUntil({u"parallel"}, [&] { return finished == count; });
        return answers;
    };

    // Waits on a queue manager's mutex while 500 others are registered: slow
    // under a sanitizer; AddressSanitizer crashed at 2,000 before the limit.
    constexpr std::size_t kWaiting = underSanitizer() ? 10'000 : 100'000;
    EXPECT_EQ(answersOf(kWaiting,
                        [&] {
                            const auto [state, index, outputs] =
                                FutureBase::fetchNext({running.future}, 1, Seconds(0.001));
                            return state == FetchNextState::TimedOut ? "timed out" : "other";
                        }),
              (Answers{{"timed out", kWaiting}}));

    // At the limit, waiting for a continuation is refused by wait and fetchNext alike.
    const std::function<bool(const std::shared_ptr<FutureBase>&)> waits[] = {
        [](const auto& future) {
            return FutureBase::wait({future}, FutureState::Finished, kGenerous);
        },
        [](const auto& future) {
            const FetchNextState state = std::get<0>(FutureBase::fetchNext({future}, 0, kGenerous));
            return state == FetchNextState::Fetched || state == FetchNextState::NoUnreadFutures;
        }};
    for (const auto& waitFor : waits) {
        TestFuture head;
        head.running();
        const std::shared_ptr<FutureBase> neverRuns =
            AfterAllFuture::build(nullptr, function.handle, 0, {head.future}, {}, false);
        const Answers onContinuation =
            answersOf(3 * iqm::Iqm::kMaxNestedWork, [&]() -> std::string {
                try {
                    return waitFor(neverRuns) ? "finished" : "timed out";
                } catch (...) {
                    if (head.future->getState() != FutureState::Finished) {
                        head.task->doNotifyFinished();
                    }
                    throw;
                }
            });
        EXPECT_EQ(onContinuation.at("finished"), iqm::Iqm::kMaxNestedWork - 1);
        EXPECT_EQ(onContinuation.at("KORVEX:parallel:future:WaitNestingLimit"),
                  2 * iqm::Iqm::kMaxNestedWork + 1);
    }
}

TEST(ContinuationTaskWithoutDistributor, FinishesAtOnceWithTheDistributorError) {
    auto interpreter = kvm::KVM::create(kvm::CmdDistributorMode::Disabled);
    KVInitialize_libqzparallellanguagefuture();
    RecordingFunction function;
    const auto done = TestFuture().finishedWith({scalar(1)}).future;
    auto task = ContinuationTask::build(function.handle, 1, {done}, {}, false);
    EXPECT_EQ(task->getState(), FutureState::Finished);
    const OutputsOrError result = task->getOutputsOrError();
    ASSERT_TRUE(result.hasError());
    try {
        std::rethrow_exception(result.error());
    } catch (const cmddistributor::RuntimeException& e) {
        EXPECT_EQ(e.getExecutionStatus(), 2);
        EXPECT_STREQ(e.what(), "No CmdDistributor available");
    }
    EXPECT_TRUE(function.calls->empty());
}

} // namespace
} // namespace parallel::language::future
