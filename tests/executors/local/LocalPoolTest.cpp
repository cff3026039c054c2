// qz-test-label: concurrency
#include <localpool/LocalPool.hpp>

#include <executor/ExecutorErrors.hpp>
#include <parallel/language/future/ScopedTaskFinishedListener.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kcos/Language.hpp>
#include <kvm/KVM.hpp>
#include <matrix/Errors.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <thread>

namespace localpool {
namespace {

namespace future = parallel::language::future;
using future::FutureState;
using Array = boost::intrusive_ptr<dvArray>;
using FuturePtr = std::shared_ptr<FevalFuture>;

Array scalar(double value) {
    return Array(matrix::to_korvex(dvCreateDoubleScalar(value)), false);
}

// Prints and runs `during`, then gives x + 1 (1 without inputs).
Array plusOne(std::function<void()> during = [] {}) {
    auto body = [during](std::size_t, const DvArrayVector& in) {
        kvm::print(u"adding one\n");
        during();
        return DvArrayVector{scalar((in.empty() ? 0 : dvGetDoubles(in[0].get())[0]) + 1)};
    };
    return Array(matrix::to_korvex(matrix::createFunctionHandle("f", body)), false);
}

// Counts `started` down, then waits until the task is asked to stop.
void untilStopped(std::latch& started) {
    started.count_down();
    while (!stopRequested()) {
        std::this_thread::yield();
    }
}

// The first output, once the task has finished; at most 60 s, so that a fault
// fails the test rather than hanging it.
double outputOf(const FuturePtr& f) {
    EXPECT_TRUE(f->getTask()->wait(FutureState::Finished,
                                   future::clock::getCurrentSteadyTime() + future::Seconds(60)));
    return dvGetDoubles(f->getTask()->getOutputsOrError().value().value().at(0).get())[0];
}

// The message identifier of a typed error, else the text; "" without an error.
std::string errorOf(const FuturePtr& f) {
    EXPECT_EQ(f->getState(), FutureState::Finished);
    try {
        if (const auto result = f->getTask()->getOutputsOrError(); result.hasError()) {
            std::rethrow_exception(result.error());
        }
    } catch (const foundation::core::except::IMsgIDException& e) {
        return e.get_message_id().str();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

constexpr const char* kCancelled = "KORVEX:parallel:future:ExecutionCancelled";

struct ThrowingListener : future::TaskFinishedListener {
    void onTaskFinished() override { throw std::runtime_error("listener failed"); }
};

struct CountingListener : future::TaskFinishedListener {
    std::atomic<int> calls{0};
    void onTaskFinished() override { ++calls; }
};

TEST(LocalPool, RunsOnItsOwnInputsAndKeepsOutputsTimesAndDiary) {
    LocalPool pool(2);
    std::latch mutated(1);
    Array input = scalar(41);
    auto f = pool.submit(plusOne([&] { mutated.wait(); }), 1, {input});
    dvGetMutableDoubles(input.get())[0] = 100; // copy-on-write: the worker keeps 41
    mutated.count_down();

    EXPECT_EQ(outputOf(f), 42);
    EXPECT_EQ(f->getTask()->getDiary(), u"adding one\n");
    EXPECT_GT(f->getStartTime().time_since_epoch().count(), 0.0);
    EXPECT_LE(f->getStartTime(), f->getFinishTime());
}

TEST(LocalPool, ErrorsBecomeTheTaskErrorAndWorkersSurviveFailingNotifications) {
    future::ScopedTaskFinishedListener listener(std::make_shared<ThrowingListener>());
    LocalPool pool(1);
    // Refused by typed errors, and before a worker sizes anything by the count.
    using InvalidFunction = foundation::core::except::Exception<KORVEX::executor::InvalidFunction>;
    using TooManyOutputs = foundation::core::except::Exception<KORVEX::maxlhs>;
    EXPECT_THROW(pool.submit(scalar(1), 0, {}), InvalidFunction);
    EXPECT_THROW(pool.submitOnAll(nullptr, 0, {}), InvalidFunction);
    EXPECT_THROW(pool.submit(plusOne(), 4294967295u, {}), TooManyOutputs);
    EXPECT_THROW(pool.submitOnAll(plusOne(), kcos::kMaxNumOutputs + 1, {}), TooManyOutputs);
    auto throwing = pool.submit(plusOne([] { throw std::runtime_error("boom"); }), 1, {});
    auto tooManyOutputs = pool.submit(plusOne(), 3, {scalar(1)});
    auto fine = pool.submit(plusOne(), 1, {scalar(2)});
    EXPECT_EQ(outputOf(fine), 3); // one worker, oldest first: the others are done too
    EXPECT_EQ(errorOf(throwing), "boom");
    EXPECT_EQ(errorOf(tooManyOutputs), "KORVEX:maxlhs");
}

TEST(LocalPool, CancelAndShutdownSkipQueuedWorkAndStopRunningWork) {
    EXPECT_FALSE(stopRequested());
    for (bool shutdown : {false, true}) {
        std::latch started(1);
        FuturePtr running, queued;
        // Only Finished wakes a fetchNext asleep on another thread: every
        // task the cancel or the shutdown ends must tell the listeners.
        const auto finished = std::make_shared<CountingListener>();
        const future::ScopedTaskFinishedListener listening(finished);
        {
            LocalPool pool(1);
            running = pool.submit(plusOne([&] { untilStopped(started); }), 1, {});
            queued = pool.submit(plusOne([] { ADD_FAILURE() << "cancelled work ran"; }), 0, {});
            started.wait();
            EXPECT_EQ(finished->calls, 0);
            if (!shutdown) {
                queued->cancel();
                EXPECT_EQ(finished->calls, 1) << "the cancel of a queued task";
                running->cancel();
                // The only worker is free again once the function has returned; had
                // the cancelled task stayed queued, it would have run before this one.
                EXPECT_EQ(outputOf(pool.submit(plusOne(), 1, {scalar(1)})), 2);
            }
        }
        EXPECT_EQ(finished->calls, shutdown ? 2 : 3) << "the running, the queued (and the last)";
        EXPECT_EQ(errorOf(queued), kCancelled);
        // Asked to stop by the shutdown, the running function returns normally.
        EXPECT_EQ(errorOf(running), shutdown ? "" : kCancelled);
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

TEST(LocalPool, SubmissionsFromManyThreadsAllFinish) {
    LocalPool pool(2);
    std::latch go(4);
    std::vector<std::vector<FuturePtr>> futures(4);
    {
        std::vector<std::jthread> submitters;
        for (auto& mine : futures) {
            submitters.emplace_back([&] {
                go.arrive_and_wait();
                for (int i = 0; i < 50; ++i) {
                    mine.push_back(pool.submit(plusOne(), 1, {scalar(i)}));
                }
            });
        }
    }
    for (const auto& perThread : futures) {
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(outputOf(perThread[i]), i + 1);
        }
    }
}

} // namespace
} // namespace localpool
