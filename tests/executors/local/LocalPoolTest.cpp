// qz-test-label: concurrency
#include <localpool/LocalPool.hpp>

#include <parallel/language/future/support/FutureTestSupport.hpp>

#include <kcos/Language.hpp>
#include <matrix/Errors.hpp>
#include <support/ErrorIds.hpp>

#include <chrono>
#include <future>
#include <latch>
#include <thread>

namespace localpool {
namespace {

namespace future = parallel::language::future;
using namespace future::testing;
using future::FutureState;
using Array = boost::intrusive_ptr<dvArray>;
using testsupport::idOf;
using FuturePtr = std::shared_ptr<FevalFuture>;
using OnAllPtr = std::shared_ptr<FevalOnAllFuture>;

// Prints and runs `during`, then gives x + 1 (1 without inputs).
Array plusOne(std::function<void()> during = [] {}) {
    return functionHandle("f", [during](std::size_t, const DvArrayVector& in) {
        kvm::print(u"adding one\n");
        during();
        return DvArrayVector{scalar((in.empty() ? 0 : valueOf(in[0].get())) + 1)};
    });
}

// Counts `started` down, then waits until the task is asked to stop.
void untilStopped(std::latch& started) {
    started.count_down();
    while (!stopRequested()) {
        std::this_thread::yield();
    }
}

// The first output, once the task has finished.
double outputOf(const FuturePtr& f) {
    EXPECT_TRUE(f->getTask()->wait(FutureState::Finished, secondsFromNow(kGenerous.count())));
    return valueOf(f->getTask()->getOutputsOrError().value().value().at(0).get());
}

std::string errorOf(const FuturePtr& f) {
    EXPECT_EQ(f->getState(), FutureState::Finished);
    const auto result = f->getTask()->getOutputsOrError();
    return result.hasError() ? idOf(result.error()) : "";
}

std::vector<std::string> taskErrorsOf(const OnAllPtr& f) {
    EXPECT_EQ(f->getState(), FutureState::Finished);
    const auto errors = f->getError();
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < errors.size(); ++i) {
        ids.push_back(idOf(errors[i]));
    }
    return ids;
}

constexpr const char* kCancelled = "KORVEX:parallel:future:ExecutionCancelled";

TEST(LocalPool, RunsOnItsOwnInputsAndKeepsOutputsTimesAndDiary) {
    LocalPool pool(2);
    std::latch mutated(1);
    Array input = scalar(41);
    auto f = pool.submit(plusOne([&] { mutated.wait(); }), 1, {input});
    dvGetMutableDoubles(input.get())[0] = 100; // copy-on-write: the worker keeps 41
    mutated.count_down();

    EXPECT_EQ(outputOf(f), 42);
    // A function that writes its inputs writes arrays of its own.
    auto writer = pool.submit(functionHandle("w",
                                             [](std::size_t, const DvArrayVector& in) {
                                                 dvGetMutableDoubles(in[0].get())[0] = 7;
                                                 return in;
                                             }),
                              1, {input});
    EXPECT_EQ(outputOf(writer), 7);
    EXPECT_EQ(valueOf(writer->getInputs().getAsSingle()->at(0).get()), 100);
    EXPECT_EQ(f->getTask()->getDiary(), u"adding one\n");
    EXPECT_GT(f->getStartTime().time_since_epoch().count(), 0.0);
    EXPECT_LE(f->getStartTime(), f->getFinishTime());
}

TEST(LocalPool, ErrorsBecomeTheTaskErrorAndWorkersSurviveFailingNotifications) {
    const auto failing = std::make_shared<CountingListener>();
    failing->action = [] { throw std::runtime_error("listener failed"); };
    const future::ScopedTaskFinishedListener listener(failing);
    LocalPool pool(1);
    // Refused before a worker sizes anything by the count.
    using TooManyOutputs = foundation::core::except::Exception<KORVEX::maxlhs>;
    EXPECT_THROW(pool.submitOnAll(plusOne(), kcos::kMaxNumOutputs + 1, {}), TooManyOutputs);
    auto throwing = pool.submit(plusOne([] { throw std::runtime_error("boom"); }), 1, {});
    auto tooManyOutputs = pool.submit(plusOne(), 3, {scalar(1)});
    auto fine = pool.submit(plusOne(), 1, {scalar(2)});
    EXPECT_EQ(outputOf(fine), 3); // one worker, oldest first: the others are done too
    EXPECT_EQ(errorOf(throwing), "boom");
    EXPECT_EQ(errorOf(tooManyOutputs), "KORVEX:maxlhs");
}

// Every task a cancel or the shutdown ends, shared or pinned, waiting or
// running, must tell the listeners: only Finished wakes a fetchNext asleep on
// another thread.
TEST(LocalPool, CancelAndShutdownSkipQueuedWorkAndStopRunningWork) {
    EXPECT_FALSE(stopRequested());
    const Array never = plusOne([] { ADD_FAILURE() << "cancelled work ran"; });
    for (bool shutdown : {false, true}) {
        std::latch started(2);
        OnAllPtr running, queuedOnAll;
        FuturePtr queued;
        const auto finished = std::make_shared<CountingListener>();
        const future::ScopedTaskFinishedListener listening(finished);
        {
            LocalPool pool(2);
            running = pool.submitOnAll(plusOne([&] { untilStopped(started); }), 1, {});
            queued = pool.submit(never, 0, {});
            queuedOnAll = pool.submitOnAll(never, 0, {});
            started.wait();
            EXPECT_EQ(queuedOnAll->getState(), FutureState::Queued); // every worker is busy
            EXPECT_EQ(finished->calls, 0);
            if (!shutdown) {
                queued->cancel();
                queuedOnAll->cancel();
                EXPECT_EQ(finished->calls, 3) << "the cancels of the queued tasks";
                EXPECT_EQ(errorOf(queued), kCancelled);
                EXPECT_EQ(taskErrorsOf(queuedOnAll), std::vector<std::string>(2, kCancelled));
                // Only the queues could still hold the cancelled tasks: once
                // their futures are gone, nothing may.
                std::vector<std::weak_ptr<future::TaskBase>> cancelled{queued->getTask()};
                for (unsigned long long i = 0; i < 2; ++i) {
                    cancelled.push_back(queuedOnAll->getMultiTask()->getTask(i));
                }
                queued.reset();
                queuedOnAll.reset();
                for (const auto& task : cancelled) {
                    EXPECT_TRUE(task.expired());
                }
                running->cancel();
                // The workers are free again once the functions have returned.
                EXPECT_EQ(outputOf(pool.submit(plusOne(), 1, {scalar(1)})), 2);
            }
        }
        EXPECT_EQ(finished->calls, shutdown ? 5 : 6) << "the running, the queued (and the last)";
        if (shutdown) {
            EXPECT_EQ(errorOf(queued), kCancelled);
            EXPECT_EQ(taskErrorsOf(queuedOnAll), std::vector<std::string>(2, kCancelled));
        }
        // Asked to stop by the shutdown, the running functions return normally.
        EXPECT_EQ(taskErrorsOf(running), std::vector<std::string>(2, shutdown ? "" : kCancelled));
    }
}

// Sets `exited` when the thread that first used it ends: thread-local objects
// are destroyed after everything else the thread runs.
struct ThreadExit {
    std::promise<void>* exited = nullptr;
    ~ThreadExit() {
        if (exited != nullptr) {
            exited->set_value();
        }
    }
};
thread_local ThreadExit tThreadExit;

TEST(LocalPool, ShutdownGivesUpOnAFunctionThatIgnoresStopAfterTheGracePeriod) {
    std::latch started(1);
    std::promise<void> release;
    std::promise<void> workerExited;
    auto pool = std::make_unique<LocalPool>(1, std::chrono::milliseconds(100));
    const FuturePtr stuck = pool->submit(plusOne([&, released = release.get_future().share()] {
                                             tThreadExit.exited = &workerExited;
                                             started.count_down();
                                             released.wait(); // never looks at stopRequested()
                                         }),
                                         1, {});
    const FuturePtr queued = pool->submit(plusOne(), 1, {});
    started.wait();

    std::promise<void> destroyed;
    std::jthread destroyer([&] {
        pool.reset();
        destroyed.set_value();
    });
    // Far beyond the grace period; a destructor that waits for the function never returns.
    EXPECT_EQ(destroyed.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_EQ(errorOf(stuck), kCancelled);
    EXPECT_EQ(errorOf(queued), kCancelled);

    release.set_value(); // the left-behind worker finishes alone
    workerExited.get_future().wait();
    EXPECT_EQ(errorOf(stuck), kCancelled); // its late result changes nothing
}

} // namespace
} // namespace localpool
