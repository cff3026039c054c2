// qz-test-label: concurrency
// What the pools' tests do not reach of the base they share: the order in
// which workers take pinned and shared tasks, the submission's checks, and
// nested stop requests. A queue of plain WorkerTasks that the test itself
// takes work from.
#include <executor/PinnedQueue.hpp>
#include <executor/StopRequest.hpp>
#include <executor/Submission.hpp>
#include <executor/WorkerTask.hpp>

#include <kcos/Language.hpp>
#include <parallel/language/future/support/FutureTestSupport.hpp>
#include <support/ErrorIds.hpp>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace executor {
namespace {

namespace future = parallel::language::future;
using future::FutureState;
using Array = boost::intrusive_ptr<dvArray>;
using Queue = PinnedQueue<WorkerTask>;
using TaskPtr = Queue::TaskPtr;
using future::testing::scalar;
using testsupport::thrownBy;

Array identity() {
    return future::testing::functionHandle("identity",
                                           [](std::size_t, const DvArrayVector& in) { return in; });
}

// A queue of `numWorkers` and the tasks it makes, for any worker or pinned.
struct Fixture {
    explicit Fixture(std::size_t numWorkers) : queue(std::make_shared<Queue>(numWorkers)) {}
    TaskPtr task(std::optional<std::size_t> worker = std::nullopt) {
        return std::make_shared<WorkerTask>(queue, worker);
    }
    auto maker() {
        return [this](const Array&, unsigned int, const DvArrayVector&,
                      std::optional<std::size_t> worker) { return task(worker); };
    }
    std::shared_ptr<Queue> queue;
};

TEST(ExecutorBase, WorkersTakeTheirPinnedTasksFirstThenSharedOnesOldestFirst) {
    Fixture f(2);
    const TaskPtr a = f.task(), b = f.task(), pinned0 = f.task(0), pinned1 = f.task(1);
    ASSERT_TRUE(f.queue->push(a));
    ASSERT_TRUE(f.queue->push(b));
    ASSERT_TRUE(f.queue->pushPinned({pinned0, pinned1}));
    EXPECT_EQ(thrownBy([&] { f.queue->pushPinned({f.task(0)}); }),
              "KORVEX:executor:PinnedTaskCount");

    EXPECT_EQ(f.queue->takeNext(0), pinned0);
    EXPECT_EQ(f.queue->takeNext(1), pinned1);
    EXPECT_EQ(f.queue->tasksInHand(), (std::vector<TaskPtr>{pinned0, pinned1}));
    EXPECT_EQ(f.queue->release(1), pinned1);
    EXPECT_EQ(f.queue->takeNext(1), a);
    EXPECT_EQ(f.queue->release(0), pinned0);
    EXPECT_EQ(f.queue->takeNext(0), b);
}

TEST(ExecutorBase, SubmissionChecksFirstAndQueuesEveryTaskBeforeAWorkerSeesOne) {
    Fixture f(3);
    EXPECT_EQ(thrownBy([&] { submitTo(*f.queue, nullptr, 1, {}, nullptr, f.maker()); }),
              "KORVEX:executor:InvalidFunction");
    EXPECT_EQ(thrownBy([&] { submitOnAllTo(*f.queue, scalar(1), 1, {}, nullptr, f.maker()); }),
              "KORVEX:executor:InvalidFunction");
    EXPECT_EQ(thrownBy([&] {
                  submitTo(*f.queue, identity(), kcos::kMaxNumOutputs + 1, {}, nullptr, f.maker());
              }),
              "KORVEX:maxlhs");
    const auto refusing = [](auto&&...) -> TaskPtr { throw std::runtime_error("cannot send"); };
    EXPECT_EQ(thrownBy([&] { submitOnAllTo(*f.queue, identity(), 1, {}, nullptr, refusing); }),
              "cannot send");

    const auto one = submitTo(*f.queue, identity(), 1, {scalar(7)}, nullptr, f.maker());
    const auto onAll = submitOnAllTo(*f.queue, identity(), 1, {}, nullptr, f.maker());
    EXPECT_EQ(one->getState(), FutureState::Queued);
    EXPECT_EQ(onAll->getState(), FutureState::Queued);
    for (std::size_t worker : {2, 1, 0}) {
        const TaskPtr task = f.queue->takeNext(worker);
        EXPECT_EQ(task->getPinnedWorker(), worker);
        EXPECT_EQ(task, onAll->getMultiTask()->getTask(worker));
        f.queue->release(worker);
    }
    EXPECT_EQ(f.queue->takeNext(0), one->getTask());
}

// The pools' own tests cover an evaluation's outputs, errors and diary.
TEST(ExecutorBase, StopRequestedReadsTheInnermostFlagOnTheEvaluatingThreadOnly) {
    std::atomic<bool> outer{true};
    const auto task = std::make_shared<WorkerTask>(std::weak_ptr<WaitingTasks>());
    EXPECT_FALSE(stopRequested());
    const StopFlagScope scope(outer);
    evaluateCapturing(task->stopFlag(), [&] {
        EXPECT_FALSE(stopRequested());
        task->requestStop();
        EXPECT_TRUE(stopRequested());
        bool elsewhere = true;
        std::thread([&] { elsewhere = stopRequested(); }).join();
        EXPECT_FALSE(elsewhere);
        return DvArrayVector{};
    });
    outer = false;
    EXPECT_FALSE(stopRequested()) << "the outer flag again";
}

} // namespace
} // namespace executor
