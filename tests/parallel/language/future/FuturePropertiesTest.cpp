#include "support/LanguageTestSupport.hpp"

#include <parallel/language/future/FevalOnAllFuture.hpp>
#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/VectorMultiTask.hpp>

#include <cmath>

namespace parallel::language::future {
namespace {

using namespace testing;

// A future whose state and times the test sets.
class FixedFuture : public FutureBase {
public:
    FixedFuture(kcos::COSInterface* parent = nullptr)
        : FutureBase(parent, nullptr, 2, DvArrayVector{}, std::nullopt) {}
    FutureState state = FutureState::Running;
    double start = 0.0;
    double finish = 0.0;

private:
    void doCancel() override {}
    boost::shared_future<void> doGetWaitableFuture() override { return {}; }
    bool doWait(FutureState, SteadyTimePoint) override { return true; }
    void doAfterFinishThen(boost::launch, std::function<void()>) override {}
    PerTaskVariant<std::u16string> doGetDiary() const override { return std::u16string(u"hi"); }
    WallClockTimePoint doGetFinishTime() const override {
        return WallClockTimePoint(Seconds(finish));
    }
    PerTaskVariant<OutputsOrError> doGetOutputsOrError() const override {
        return OutputsOrError(std::optional<DvArrayVector>(DvArrayVector{}));
    }
    WallClockTimePoint doGetStartTime() const override {
        return WallClockTimePoint(Seconds(start));
    }
    FutureState doGetState() const override { return state; }
    const char* doGetCosAliasName() const override { return "parallel.FevalFuture"; }
};

std::string errorIdOf(const dvArray* error) {
    return KExceptionEnvelope(error).GetID();
}

using FutureProperties = LanguageTest;

TEST_F(FutureProperties, AFutureThatHasNotStarted) {
    TestFuture f(1, {scalar(5)});
    f.submitted();
    const auto object = objects({f.future});

    EXPECT_EQ(propertyText(object.get(), "State"), "queued");
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "StartDateTime").get(), "datetime"));
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "FinishDateTime").get(), "datetime"));
    EXPECT_EQ(secondsOf(property(object.get(), "RunningDuration").get()), 0.0);
    const auto created = property(object.get(), "CreateDateTime");
    EXPECT_NEAR(posixTime(created.get()), f.future->getCreateTime().time_since_epoch().count(),
                1e-6);
    EXPECT_EQ(propertyText(created.get(), "TimeZone"), "local");

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
}

TEST_F(FutureProperties, DatesAreBuiltInUtcAndShownInLocalTime) {
    const auto fixed = std::make_shared<FixedFuture>();
    fixed->start = 1.5;
    fixed->finish = 4.0;
    const auto object = objects({fixed});

    const auto start = property(object.get(), "StartDateTime");
    EXPECT_DOUBLE_EQ(posixTime(start.get()), 1.5);
    EXPECT_EQ(propertyText(start.get(), "TimeZone"), "local");
    EXPECT_DOUBLE_EQ(posixTime(property(object.get(), "FinishDateTime").get()), 4.0);
    EXPECT_DOUBLE_EQ(secondsOf(property(object.get(), "RunningDuration").get()), 2.5);
    // Before the object was made: the start time is the creation time.
    EXPECT_DOUBLE_EQ(posixTime(property(object.get(), "CreateDateTime").get()), 1.5);
    // A NaN is a time, not "not set".
    fixed->start = std::nan("");
    EXPECT_EQ(std::string(dvGetClassName(property(object.get(), "StartDateTime").get())),
              "datetime");
}

TEST_F(FutureProperties, StateWordsFollowTheWork) {
    const auto fixed = std::make_shared<FixedFuture>();
    const auto object = objects({fixed});
    const std::pair<FutureState, const char*> words[] = {{FutureState::Pending, "pending"},
                                                         {FutureState::Queued, "queued"},
                                                         {FutureState::Running, "running"},
                                                         {FutureState::Finished, "finished"},
                                                         {FutureState::Unavailable, "unavailable"}};
    for (const auto& [state, word] : words) {
        fixed->state = state;
        EXPECT_EQ(propertyText(object.get(), "State"), word);
    }
    fixed->state = static_cast<FutureState>(9);
    try {
        property(object.get(), "State");
        ADD_FAILURE() << "a state outside the table has no word";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "invalid unordered_map<K, T> key");
    }
}

TEST_F(FutureProperties, AFinishedFuture) {
    TestFuture f(1);
    f.task->diary = u"said hello\n";
    f.finishedWith({scalar(3)});
    const auto object = objects({f.future});

    EXPECT_EQ(propertyText(object.get(), "State"), "finished");
    const auto outputs = property(object.get(), "OutputArguments");
    ASSERT_EQ(dvGetNumberOfElements(outputs.get()), 1u);
    EXPECT_EQ(valueOf(dvGetCell(outputs.get(), 0)), 3.0);
    EXPECT_TRUE(isEmptyOfClass(property(object.get(), "Error").get(), "ParallelException"));
    EXPECT_EQ(textOf(property(object.get(), "Diary").get()), "said hello\n");
    EXPECT_GE(secondsOf(property(object.get(), "RunningDuration").get()), 0.0);
    EXPECT_GT(posixTime(property(object.get(), "FinishDateTime").get()), 0.0);
}

TEST_F(FutureProperties, FailedAndCancelledFuturesAreFinishedWithAnError) {
    TestFuture failed;
    failed.failedWith(std::make_exception_ptr(errors::NoUnreadFutures()));
    const auto failedObject = objects({failed.future});
    EXPECT_EQ(propertyText(failedObject.get(), "State"), "finished");
    EXPECT_EQ(errorIdOf(property(failedObject.get(), "Error").get()),
              "KORVEX:parallel:future:NoUnreadFutures");
    EXPECT_TRUE(isEmptyOfClass(property(failedObject.get(), "OutputArguments").get(), "cell"));

    TestFuture cancelled;
    cancelled.running();
    cancelled.task->doNotifyCancelled();
    const auto cancelledObject = objects({cancelled.future});
    EXPECT_EQ(propertyText(cancelledObject.get(), "State"), "finished");
    EXPECT_EQ(errorIdOf(property(cancelledObject.get(), "Error").get()),
              "parallel:fevalqueue:ExecutionCancelled");
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

TEST_F(FutureProperties, ErrorsOfTasksPerTask) {
    OnAll clean(2);
    clean.finish(0, ok());
    clean.finish(1, ok());
    EXPECT_TRUE(isEmptyOfClass(property(objects({clean.future}).get(), "Error").get(), "cell"));

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
}

TEST_F(FutureProperties, DiaryAndOutputsPerTaskInputsShared) {
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
    const auto child = std::make_shared<FixedFuture>(parent);
    const auto object = objects({child});
    EXPECT_TRUE(dvGetLogicals(property(object.get(), "hHasParentProperty").get())[0]);
    const auto shown = property(object.get(), "Parent");
    EXPECT_EQ(omGetLiveArrayElement(shown.get(), 0), parent);

    const auto function =
        functionHandle("twice", [](std::size_t, const DvArrayVector&) { return DvArrayVector{}; });
    TestFuture f;
    const auto withFunction =
        std::make_shared<FevalFuture>(nullptr, function, 1, DvArrayVector{}, f.task);
    const auto read = property(objects({withFunction}).get(), "Function");
    EXPECT_EQ(dvGetFunctionHandleName(read.get()), "twice");
}

} // namespace
} // namespace parallel::language::future
