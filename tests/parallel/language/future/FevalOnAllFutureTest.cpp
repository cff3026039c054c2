// qz-test-label: concurrency
#include "support/FutureTestSupport.hpp"

#include <parallel/language/future/FevalOnAllFuture.hpp>
#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/VectorMultiTask.hpp>

#include <latch>
#include <thread>

namespace parallel::language::future {
namespace {

using namespace testing;
using OnAll = TestOnAllFuture;

WallClockTimePoint at(double seconds) {
    return WallClockTimePoint(Seconds(seconds));
}

TEST(FevalOnAllFuture, StateFollowsTheFirstMatchingRule) {
    struct Case {
        std::vector<void (TestTask::*)()> notifications;
        FutureState expected;
    };
    using T = TestTask;
    const std::vector<Case> cases{
        {{}, FutureState::Finished},
        {{&T::doNotifyPending, &T::doNotifyFinished}, FutureState::Running},
        {{&T::doNotifyPending, &T::doNotifyQueued}, FutureState::Queued},
        {{&T::doNotifyQueued, &T::doNotifyQueued}, FutureState::Queued},
        {{&T::doNotifyPending, &T::doNotifyPending}, FutureState::Pending},
        {{&T::doNotifyFinished, &T::doNotifyFinished}, FutureState::Finished},
        {{&T::doNotifyRunning, &T::doNotifyFinished, &T::doNotifyPending}, FutureState::Running},
    };
    for (const Case& c : cases) {
        OnAll f(c.notifications.size());
        for (std::size_t i = 0; i < c.notifications.size(); ++i) {
            ((*f.tasks[i]).*c.notifications[i])();
        }
        EXPECT_EQ(f.future->getState(), c.expected) << "case with " << c.notifications.size();
    }
    OnAll unavailable(2);
    unavailable.tasks[0]->doNotifyRunning(); // task 1 never notified: Unavailable wins
    EXPECT_EQ(unavailable.future->getState(), FutureState::Unavailable);
}

TEST(FevalOnAllFuture, TimesTreatUnsetAsLatest) {
    OnAll none(0);
    EXPECT_EQ(none.future->getStartTime(), at(0));
    EXPECT_EQ(none.future->getFinishTime(), at(0));

    OnAll two(2);
    two.tasks[0]->doNotifyRunning();
    EXPECT_EQ(two.future->getStartTime(), two.tasks[0]->getStartTime());
    two.tasks[1]->doNotifyRunning();
    EXPECT_EQ(two.future->getStartTime(), two.tasks[0]->getStartTime());
    two.tasks[1]->doNotifyFinished();
    EXPECT_EQ(two.future->getFinishTime(), at(0)); // task 0 has not finished
    two.tasks[0]->doNotifyFinished();
    EXPECT_EQ(two.future->getFinishTime(), two.tasks[0]->getFinishTime());
    EXPECT_GE(two.future->getFinishTime(), two.tasks[1]->getFinishTime());
}

TEST(FevalOnAllFuture, WaitForRunningNeedsOneTaskAndWaitForFinishedAll) {
    auto interpreter = kvm::KVM::create();
    OnAll f(3);
    for (auto& task : f.tasks) {
        task->doNotifyQueued();
    }
    std::latch waiting(1);
    std::jthread worker([&] {
        waiting.wait();
        f.tasks[2]->doNotifyRunning();
        f.tasks[2]->doNotifyFinished();
    });
    waiting.count_down();
    EXPECT_TRUE(FutureBase::wait({f.future}, FutureState::Running, kGenerous));
    worker.join();
    f.tasks[0]->runToFinish();
    EXPECT_FALSE(FutureBase::wait({f.future}, FutureState::Finished, Seconds(0.0)));
    std::jthread finisher([&] { f.tasks[1]->runToFinish(); });
    EXPECT_TRUE(FutureBase::wait({f.future}, FutureState::Finished, kGenerous));
    EXPECT_TRUE(FutureBase::wait({OnAll(0).future}, FutureState::Finished, Seconds(0.0)));
}

TEST(FevalOnAllFuture, CancelReachesEveryTaskUnlessAllFinished) {
    OnAll running(2);
    running.tasks[0]->doNotifyRunning();
    running.tasks[1]->runToFinish();
    running.future->cancel();
    EXPECT_EQ(running.tasks[0]->cancelCalls, 1);
    EXPECT_EQ(running.tasks[1]->cancelCalls, 0); // finished: only its early-return record
    EXPECT_EQ(running.future->getState(), FutureState::Finished);

    OnAll finished(2);
    for (auto& task : finished.tasks) {
        task->runToFinish();
    }
    finished.future->cancel();
    EXPECT_FALSE(finished.future->hasError());
}

TEST(FevalOnAllFuture, AfterFinishRunsOnceAfterTheLastTask) {
    OnAll f(3);
    int calls = 0;
    f.future->afterFinishThen(boost::launch::sync, [&] { ++calls; });
    f.tasks[0]->runToFinish();
    f.tasks[2]->runToFinish();
    EXPECT_EQ(calls, 0);
    f.tasks[1]->runToFinish();
    EXPECT_EQ(calls, 1);
    f.tasks[1]->doNotifyFinished();
    EXPECT_EQ(calls, 1);

    int immediately = 0;
    OnAll(0).future->afterFinishThen(boost::launch::sync, [&] { ++immediately; });
    EXPECT_EQ(immediately, 1);
}

// Diaries per task are read through the Diary property (FuturePropertiesTest.cpp),
// and fetchNext refuses it (FetchNextDrainTest.cpp).
TEST(FevalOnAllFuture, GathersOutputsPerTask) {
    OnAll f(2);
    for (auto& task : f.tasks) {
        task->result = OutputsOrError(std::optional<DvArrayVector>(DvArrayVector{scalar(1)}));
        task->runToFinish();
    }
    const DvArrayVector cells = f.future->getOutputsAs(1, OutputFormat::Cell);
    EXPECT_EQ(dvGetDimensions(cells.at(0).get()), (matrix::Dimensions{2, 1}));
}

} // namespace
} // namespace parallel::language::future
