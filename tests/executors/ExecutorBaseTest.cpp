// qz-test-label: concurrency
// What every executor shares: the pinned queue, the worker task, the
// submission sequence and the stop request, through a queue of plain
// WorkerTasks that the test itself takes work from.
#include <executor/PinnedQueue.hpp>
#include <executor/StopRequest.hpp>
#include <executor/Submission.hpp>
#include <executor/WorkerTask.hpp>

#include <parallel/language/future/ScopedTaskFinishedListener.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kcos/Language.hpp>
#include <kvm/KVM.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

namespace executor {
namespace {

namespace future = parallel::language::future;
using future::FutureState;
using Array = boost::intrusive_ptr<dvArray>;
using Queue = PinnedQueue<WorkerTask>;
using TaskPtr = Queue::TaskPtr;

constexpr const char* kCancelled = "KORVEX:parallel:future:ExecutionCancelled";

// The message identifier of a typed error thrown by `call`, else its text.
template <class Call>
std::string thrownBy(Call call) {
    try {
        call();
    } catch (const foundation::core::except::IMsgIDException& e) {
        return e.get_message_id().str();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

std::string errorOf(future::TaskBase& task) {
    const auto result = task.getOutputsOrError();
    return result.hasError() ? thrownBy([&] { std::rethrow_exception(result.error()); }) : "";
}

Array scalar(double value) {
    return Array(matrix::to_korvex(dvCreateDoubleScalar(value)), false);
}

Array identity() {
    return Array(matrix::to_korvex(matrix::createFunctionHandle(
                     "identity", [](std::size_t, const DvArrayVector& in) { return in; })),
                 false);
}

struct CountingListener : future::TaskFinishedListener {
    std::atomic<int> calls{0};
    void onTaskFinished() override { ++calls; }
};

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

TEST(ExecutorBase, CancelFinishesAWaitingTaskAtOnceAndAsksOneInHandToStop) {
    Fixture f(1);
    const TaskPtr running = f.task(), waiting = f.task(), pinned = f.task(0), next = f.task();
    for (const TaskPtr& task : {running, waiting, next}) {
        task->markPending();
        task->markQueued();
        f.queue->push(task);
    }
    f.queue->pushPinned({pinned});
    EXPECT_EQ(f.queue->takeNext(0), pinned);
    f.queue->release(0);
    EXPECT_EQ(f.queue->takeNext(0), running);

    const auto finished = std::make_shared<CountingListener>();
    const future::ScopedTaskFinishedListener listening(finished);
    waiting->cancel();
    // Only Finished wakes a fetchNext asleep on another thread.
    EXPECT_EQ(finished->calls, 1);
    EXPECT_EQ(waiting->getState(), FutureState::Finished);
    EXPECT_EQ(errorOf(*waiting), kCancelled);

    running->cancel(); // its worker finishes it
    EXPECT_TRUE(running->isStopRequested());
    EXPECT_EQ(finished->calls, 1);
    EXPECT_EQ(f.queue->tasksInHand(), std::vector<TaskPtr>{running});
    f.queue->release(0);
    EXPECT_EQ(f.queue->takeNext(0), next) << "the cancelled task left the queue";
}

TEST(ExecutorBase, CloseHandsBackWaitingTasksStopsTasksInHandAndRefusesWork) {
    Fixture f(2);
    const TaskPtr held = f.task(), shared = f.task(), pinned0 = f.task(0), pinned1 = f.task(1);
    f.queue->push(held);
    ASSERT_EQ(f.queue->takeNext(0), held);
    f.queue->push(shared);
    f.queue->pushPinned({pinned0, pinned1});

    EXPECT_EQ(f.queue->close(), (std::vector<TaskPtr>{shared, pinned0, pinned1}));
    EXPECT_TRUE(held->isStopRequested());
    EXPECT_FALSE(f.queue->push(f.task()));
    EXPECT_FALSE(f.queue->pushPinned({f.task(0), f.task(1)}));
    EXPECT_EQ(f.queue->takeNext(1), nullptr);

    // A worker waiting for work is woken by the close, and leaves.
    Fixture idle(1);
    auto waiting = std::async(std::launch::async, [&] { return idle.queue->takeNext(0); });
    idle.queue->close();
    EXPECT_EQ(waiting.get(), nullptr);
}

TEST(ExecutorBase, SubmissionChecksQueuesEveryTaskAndIsRefusedAfterShutdown) {
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

    f.queue->close();
    EXPECT_EQ(thrownBy([&] { submitTo(*f.queue, identity(), 1, {}, nullptr, f.maker()); }),
              "KORVEX:executor:PoolShutDown");
    EXPECT_EQ(thrownBy([&] { submitOnAllTo(*f.queue, identity(), 1, {}, nullptr, f.maker()); }),
              "KORVEX:executor:PoolShutDown");
}

TEST(ExecutorBase, AnEvaluationKeepsItsOutputsOrErrorAndDiaryAndSeesItsOwnStopFlag) {
    const auto task = std::make_shared<WorkerTask>(std::weak_ptr<WaitingTasks>());
    const Evaluated ran = evaluateCapturing(task->stopFlag(), [&] {
        kvm::print(u"running\n");
        EXPECT_FALSE(stopRequested());
        task->requestStop();
        EXPECT_TRUE(stopRequested());
        bool elsewhere = true;
        std::thread([&] { elsewhere = stopRequested(); }).join();
        EXPECT_FALSE(elsewhere) << "the flag is the evaluating thread's only";
        return DvArrayVector{scalar(1)};
    });
    EXPECT_FALSE(stopRequested());
    EXPECT_EQ(ran.diary, u"running\n");
    EXPECT_EQ(ran.result.value()->size(), 1u);

    std::atomic<bool> outer{true};
    const StopFlagScope scope(outer);
    const Evaluated failed = evaluateCapturing(task->stopFlag(), []() -> DvArrayVector {
        kvm::print(u"failing\n");
        throw std::runtime_error("boom");
    });
    EXPECT_TRUE(stopRequested()) << "the outer scope again";
    task->setResult(failed.result, failed.diary);
    task->markFinished();
    EXPECT_EQ(errorOf(*task), "boom");
    EXPECT_EQ(task->getDiary(), u"failing\n");
}

} // namespace
} // namespace executor
