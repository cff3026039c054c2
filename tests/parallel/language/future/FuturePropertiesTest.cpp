#include "support/LanguageTestSupport.hpp"

#include <parallel/language/future/FevalOnAllFuture.hpp>
#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/VectorMultiTask.hpp>

namespace parallel::language::future {
namespace {

using namespace testing;

std::string errorIdOf(const dvArray* error) {
    return KExceptionEnvelope(error).GetID();
}

using FutureProperties = LanguageTest;

TEST_F(FutureProperties, StateWordsDatesAndResultsFollowTheWork) {
    TestFuture f(1, {scalar(5)});
    const auto object = objects({f.future});
    const auto state = [&] { return propertyText(object.get(), "State"); };
    EXPECT_EQ(state(), "unavailable");
    f.task->doNotifyPending();
    EXPECT_EQ(state(), "pending");
    f.task->doNotifyQueued();
    EXPECT_EQ(state(), "queued");

    // Not started yet.
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "StartDateTime").get(), "datetime"));
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "FinishDateTime").get(), "datetime"));
    EXPECT_EQ(secondsOf(property(object.get(), "RunningDuration").get()), 0.0);
    EXPECT_NEAR(posixTime(property(object.get(), "CreateDateTime").get()),
                f.future->getCreateTime().time_since_epoch().count(), 1e-6);

    EXPECT_EQ(valueOf(property(object.get(), "ID").get()), static_cast<double>(f.future->getID()));
    EXPECT_EQ(valueOf(property(object.get(), "NumOutputArguments").get()), 1.0);
    EXPECT_FALSE(dvGetLogicals(property(object.get(), "Read").get())[0]);
    const auto inputs = property(object.get(), "InputArguments");
    ASSERT_EQ(dvGetNumberOfElements(inputs.get()), 1u);
    EXPECT_EQ(valueOf(dvGetCell(inputs.get(), 0)), 5.0);
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "OutputArguments").get(), "cell"));
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "Error").get(), "ParallelException"));
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "Function").get(), "double"));
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "Parent").get(), "double"));
    EXPECT_EQ(dvGetDimensions(property(object.get(), "Predecessors").get()),
              (matrix::Dimensions{1, 0}));
    EXPECT_EQ(textOf(property(object.get(), "Diary").get()), "");

    f.task->doNotifyRunning();
    EXPECT_EQ(state(), "running");
    f.task->diary = u"said hello\n";
    f.task->result = OutputsOrError(std::optional<DvArrayVector>(DvArrayVector{scalar(3)}));
    f.task->doNotifyFinished();
    EXPECT_EQ(state(), "finished");

    // Built in UTC from the work's times, shown in local time.
    const double start = f.task->getStartTime().time_since_epoch().count();
    const double finish = f.task->getFinishTime().time_since_epoch().count();
    const auto started = property(object.get(), "StartDateTime");
    EXPECT_NEAR(posixTime(started.get()), start, 1e-6);
    EXPECT_EQ(propertyText(started.get(), "TimeZone"), "local");
    EXPECT_NEAR(posixTime(property(object.get(), "FinishDateTime").get()), finish, 1e-6);
    EXPECT_NEAR(secondsOf(property(object.get(), "RunningDuration").get()), finish - start, 1e-6);

    const auto outputs = property(object.get(), "OutputArguments");
    ASSERT_EQ(dvGetNumberOfElements(outputs.get()), 1u);
    EXPECT_EQ(valueOf(dvGetCell(outputs.get(), 0)), 3.0);
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "Error").get(), "ParallelException"));
    EXPECT_EQ(textOf(property(object.get(), "Diary").get()), "said hello\n");
    FutureBase::fetchOutputs({f.future}, true, 1);
    EXPECT_TRUE(dvGetLogicals(property(object.get(), "Read").get())[0]);
}

TEST_F(FutureProperties, FailedAndCancelledFuturesAreFinishedWithAnError) {
    TestFuture failed, cancelled;
    failed.failedWith(std::make_exception_ptr(errors::NoUnreadFutures()));
    cancelled.running().task->doNotifyCancelled();
    for (const auto& [future, id] :
         {std::pair{failed.future, "KORVEX:parallel:future:NoUnreadFutures"},
          std::pair{cancelled.future, "parallel:fevalqueue:ExecutionCancelled"}}) {
        const auto object = objects({future});
        EXPECT_EQ(propertyText(object.get(), "State"), "finished");
        EXPECT_EQ(errorIdOf(property(object.get(), "Error").get()), id);
        EXPECT_TRUE(isEmptyOfClass(property(object.get(), "OutputArguments").get(), "cell"));
    }
}

struct OnAll : TestOnAllFuture {
    explicit OnAll(std::size_t n) : TestOnAllFuture(n, DvArrayVector{scalar(8)}) {}
    void finish(std::size_t i, OutputsOrError result) {
        tasks[i]->result = std::move(result);
        tasks[i]->runToFinish();
    }
};

OutputsOrError ok() {
    return OutputsOrError(std::optional<DvArrayVector>(DvArrayVector{scalar(1)}));
}
OutputsOrError failure() {
    return OutputsOrError(std::make_exception_ptr(errors::NoUnreadFutures()));
}

// Errors, diaries and outputs are per task; the inputs are shared.
TEST_F(FutureProperties, PerTaskPropertiesOfAFutureOnAllWorkers) {
    OnAll oneFailed(2);
    oneFailed.finish(0, failure());
    oneFailed.finish(1, ok());
    const auto errors = property(objects({oneFailed.future}).get(), "Error");
    ASSERT_EQ(dvGetDimensions(errors.get()), (matrix::Dimensions{1, 2}));
    EXPECT_EQ(errorIdOf(dvGetCell(errors.get(), 0)), "KORVEX:parallel:future:NoUnreadFutures");
    EXPECT_TRUE(isEmptyOfClass(dvGetCell(errors.get(), 1), "ParallelException"));

    OnAll withCancel(3);
    withCancel.finish(0, failure());
    withCancel.tasks[1]->doNotifyPending();
    withCancel.tasks[1]->doNotifyCancelled();
    withCancel.finish(2, ok());
    const auto cancelled = property(objects({withCancel.future}).get(), "Error");
    ASSERT_EQ(dvGetDimensions(cancelled.get()), (matrix::Dimensions{1, 1}));
    EXPECT_EQ(errorIdOf(dvGetCell(cancelled.get(), 0)), "parallel:fevalqueue:ExecutionCancelled");

    OnAll all(3);
    for (std::size_t i = 0; i < 3; ++i) {
        all.tasks[i]->diary = std::u16string(u"worker ") + static_cast<char16_t>(u'1' + i);
        all.finish(i, ok());
    }
    const auto object = objects({all.future});
    const auto diary = property(object.get(), "Diary");
    ASSERT_EQ(dvGetDimensions(diary.get()), (matrix::Dimensions{1, 3}));
    EXPECT_EQ(textOf(dvGetCell(diary.get(), 2)), "worker 3");
    const auto inputs = property(object.get(), "InputArguments");
    ASSERT_EQ(dvGetDimensions(inputs.get()), (matrix::Dimensions{1, 1}));
    EXPECT_EQ(valueOf(dvGetCell(inputs.get(), 0)), 8.0);
    const auto outputs = property(object.get(), "OutputArguments");
    ASSERT_EQ(dvGetDimensions(outputs.get()), (matrix::Dimensions{1, 3}));
}

TEST_F(FutureProperties, ParentAndFunction) {
    const auto parentArray = construct("parallel.Future");
    kcos::COSInterface* parent = omGetLiveArrayElement(parentArray.get(), 0);
    const auto function =
        functionHandle("twice", [](std::size_t, const DvArrayVector&) { return DvArrayVector{}; });
    const auto object = objects(
        {std::make_shared<FevalFuture>(parent, function, 1, DvArrayVector{}, TestTask::make())});
    EXPECT_TRUE(dvGetLogicals(property(object.get(), "hHasParentProperty").get())[0]);
    EXPECT_EQ(omGetLiveArrayElement(property(object.get(), "Parent").get(), 0), parent);
    EXPECT_EQ(dvGetFunctionHandleName(property(object.get(), "Function").get()), "twice");
}

} // namespace
} // namespace parallel::language::future
