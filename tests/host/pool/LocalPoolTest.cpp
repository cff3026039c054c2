// qz-test-label: concurrency
#include <localpool/LocalPool.hpp>

#include <parallel/language/future/ScopedTaskFinishedListener.hpp>

#include <foundation/core/except/Exception.hpp>
#include <kvm/KVM.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace localpool {
namespace {

namespace future = parallel::language::future;
using future::FutureState;
using Array = boost::intrusive_ptr<dvArray>;
using FuturePtr = std::shared_ptr<FevalFuture>;

Array scalar(double value) {
    return Array(matrix::to_korvex(dvCreateDoubleScalar(value)), false);
}

Array handle(matrix::FunctionBody body) {
    return Array(matrix::to_korvex(matrix::createFunctionHandle("f", std::move(body))), false);
}

// Prints, then x -> x + 1 once `gate` (if any) opens.
Array plusOne(std::latch* gate = nullptr) {
    return handle([gate](std::size_t, const DvArrayVector& in) {
        kvm::print(u"adding one\n");
        if (gate) {
            gate->wait();
        }
        return DvArrayVector{scalar(dvGetDoubles(in.at(0).get())[0] + 1)};
    });
}

// Counts `started` down, spins until asked to stop, then returns 7.
Array untilStopped(std::latch& started) {
    return handle([&started](std::size_t, const DvArrayVector&) {
        started.count_down();
        while (!stopRequested()) {
            std::this_thread::yield();
        }
        return DvArrayVector{scalar(7)};
    });
}

Array settingFlag(std::atomic<bool>& ran) {
    return handle([&ran](std::size_t, const DvArrayVector&) {
        ran = true;
        return DvArrayVector{};
    });
}

// Far longer than any wait here should take: a fault fails the test, never hangs it.
bool waitFinished(const FuturePtr& f) {
    return f->getTask()->wait(FutureState::Finished,
                              future::clock::getCurrentSteadyTime() + future::Seconds(60));
}

// Throws (failing the test) unless the task has outputs.
double firstOutput(const FuturePtr& f) {
    return dvGetDoubles(f->getTask()->getOutputsOrError().value().value().at(0).get())[0];
}

// The message identifier of a typed error, else the text; "" without an error.
std::string errorOf(const FuturePtr& f) {
    const future::OutputsOrError result = f->getTask()->getOutputsOrError();
    if (!result.hasError()) {
        return "";
    }
    try {
        std::rethrow_exception(result.error());
    } catch (const foundation::core::except::IMsgIDException& e) {
        return e.get_message_id().str();
    } catch (const std::exception& e) {
        return e.what();
    }
}

constexpr const char* kCancelled = "KORVEX:parallel:future:ExecutionCancelled";

TEST(LocalPool, RunsOnItsOwnInputsAndKeepsOutputsTimesAndDiary) {
    EXPECT_GE(LocalPool().getNumWorkers(), 1u);
    LocalPool pool(2);
    EXPECT_EQ(pool.getNumWorkers(), 2u);
    std::latch mutated(1);
    Array input = scalar(41);
    auto f = pool.submit(plusOne(&mutated), 1, {input});
    dvGetMutableDoubles(input.get())[0] = 100; // copy-on-write: the worker keeps 41
    mutated.count_down();

    ASSERT_TRUE(waitFinished(f));
    EXPECT_EQ(f->getState(), FutureState::Finished);
    EXPECT_EQ(firstOutput(f), 42);
    EXPECT_EQ(f->getTask()->getDiary(), u"adding one\n");
    EXPECT_GT(f->getStartTime().time_since_epoch().count(), 0.0);
    EXPECT_LE(f->getStartTime(), f->getFinishTime());
}

TEST(LocalPool, ErrorsOfTheFunctionBecomeTheTaskError) {
    LocalPool pool(1);
    auto throwing = pool.submit(handle([](std::size_t, const DvArrayVector&) -> DvArrayVector {
                                    throw std::runtime_error("boom");
                                }),
                                1, {});
    auto tooManyOutputs = pool.submit(plusOne(), 3, {scalar(1)});
    ASSERT_TRUE(waitFinished(throwing));
    ASSERT_TRUE(waitFinished(tooManyOutputs));
    EXPECT_EQ(errorOf(throwing), "boom");
    EXPECT_EQ(errorOf(tooManyOutputs), "KORVEX:maxlhs");
}

TEST(LocalPool, CancelledQueuedWorkNeverRuns) {
    LocalPool pool(1);
    std::latch release(1);
    auto busy = pool.submit(plusOne(&release), 1, {scalar(0)});
    std::atomic<bool> ran{false};
    auto queued = pool.submit(settingFlag(ran), 0, {});

    queued->cancel();
    EXPECT_EQ(queued->getState(), FutureState::Finished);
    EXPECT_EQ(errorOf(queued), kCancelled);
    release.count_down();
    // One worker, oldest first: had the cancelled task stayed queued, it
    // would have run before this one.
    auto later = pool.submit(plusOne(), 1, {scalar(0)});
    ASSERT_TRUE(waitFinished(later));
    EXPECT_FALSE(ran);
    EXPECT_EQ(firstOutput(busy), 1);
}

TEST(LocalPool, CancelAsksRunningWorkToStop) {
    EXPECT_FALSE(stopRequested());
    LocalPool pool(1);
    std::latch started(1);
    auto f = pool.submit(untilStopped(started), 1, {});
    started.wait();
    EXPECT_EQ(f->getState(), FutureState::Running);

    f->cancel();
    EXPECT_EQ(f->getState(), FutureState::Finished);
    EXPECT_EQ(errorOf(f), kCancelled);
    // The only worker is free again once the function has returned.
    auto next = pool.submit(plusOne(), 1, {scalar(1)});
    ASSERT_TRUE(waitFinished(next));
    EXPECT_EQ(firstOutput(next), 2);
}

TEST(LocalPool, ShutdownCancelsQueuedWorkAndStopsRunningWork) {
    std::latch started(1);
    std::atomic<bool> ran{false};
    FuturePtr running;
    std::vector<FuturePtr> queued;
    {
        LocalPool pool(1);
        running = pool.submit(untilStopped(started), 1, {});
        queued = {pool.submit(settingFlag(ran), 0, {}), pool.submit(settingFlag(ran), 0, {})};
        started.wait();
    }
    EXPECT_EQ(running->getState(), FutureState::Finished);
    EXPECT_EQ(firstOutput(running), 7);
    for (const auto& f : queued) {
        EXPECT_EQ(f->getState(), FutureState::Finished);
        EXPECT_EQ(errorOf(f), kCancelled);
    }
    EXPECT_FALSE(ran);
}

TEST(LocalPool, SubmissionsFromManyThreadsAllFinish) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 50;
    LocalPool pool(2);
    std::latch go(kThreads);
    std::vector<std::vector<FuturePtr>> futures(kThreads);
    {
        std::vector<std::jthread> submitters;
        for (int t = 0; t < kThreads; ++t) {
            submitters.emplace_back([&, t] {
                go.arrive_and_wait();
                for (int i = 0; i < kPerThread; ++i) {
                    futures[t].push_back(pool.submit(plusOne(), 1, {scalar(i)}));
                }
            });
        }
    }
    for (const auto& perThread : futures) {
        for (int i = 0; i < kPerThread; ++i) {
            ASSERT_TRUE(waitFinished(perThread.at(i)));
            EXPECT_EQ(firstOutput(perThread[i]), i + 1);
        }
    }
}

struct ThrowingListener : future::TaskFinishedListener {
    void onTaskFinished() override { throw std::runtime_error("listener failed"); }
};

TEST(LocalPool, WorkersSurviveFailingNotifications) {
    future::ScopedTaskFinishedListener listener(std::make_shared<ThrowingListener>());
    LocalPool pool(1);
    auto first = pool.submit(plusOne(), 1, {scalar(1)});
    auto second = pool.submit(plusOne(), 1, {scalar(2)});
    ASSERT_TRUE(waitFinished(first));
    ASSERT_TRUE(waitFinished(second));
    EXPECT_EQ(firstOutput(second), 3);
}

TEST(LocalPool, RejectsWhatIsNotAFunction) {
    LocalPool pool(1);
    EXPECT_THROW(pool.submit(nullptr, 0, {}), std::invalid_argument);
    EXPECT_THROW(pool.submit(scalar(1), 0, {}), std::invalid_argument);
}

} // namespace
} // namespace localpool
