// qz-test-label: concurrency
#include <localpool/LocalPool.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <foundation/core/except/Exception.hpp>
#include <foundation/core/str/Utf.hpp>
#include <kvm/KVM.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <latch>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace localpool {
namespace {

namespace future = parallel::language::future;
using future::FutureBase;
using future::FutureState;
using future::Seconds;
using Array = boost::intrusive_ptr<dvArray>;
using OnAllPtr = std::shared_ptr<FevalOnAllFuture>;

constexpr const char* kCancelled = "KORVEX:parallel:future:ExecutionCancelled";
const Seconds kPatience(60); // a fault fails the test rather than hanging it

Array scalar(double value) {
    return Array(matrix::to_korvex(dvCreateDoubleScalar(value)), false);
}

// A function handle giving body(x) for its first input x (0 without inputs).
Array function(std::function<double(double)> body) {
    auto call = [body = std::move(body)](std::size_t, const DvArrayVector& in) {
        return DvArrayVector{scalar(body(in.empty() ? 0 : dvGetDoubles(in[0].get())[0]))};
    };
    return Array(matrix::to_korvex(matrix::createFunctionHandle("f", call)), false);
}

std::vector<double> valuesOf(const dvArray* array) {
    const auto values = dvGetDoubles(array);
    return {values.begin(), values.end()};
}

// The message identifier of a typed error or of an error envelope (the form
// that a future's errors take), else the text; "" without an error.
std::string idOf(const std::exception_ptr& error) {
    try {
        if (error) {
            std::rethrow_exception(error);
        }
    } catch (const foundation::core::except::IMsgIDException& e) {
        return e.get_message_id().str();
    } catch (const Veldspire::KException::KExceptionEnvelope& e) {
        return e.GetMessageID().str();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

std::vector<std::string> taskErrorsOf(const OnAllPtr& f) {
    const auto errors = f->getError();
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < errors.size(); ++i) {
        ids.push_back(idOf(errors[i]));
    }
    return ids;
}

// Counts `started` down, then waits until the task is asked to stop.
double untilStopped(std::latch& started) {
    started.count_down();
    while (!stopRequested()) {
        std::this_thread::yield();
    }
    return 1;
}

TEST(LocalPoolOnAll, RunsTaskIOnWorkerIWithItsOwnOutputAndDiary) {
    const auto interpreter = kvm::KVM::create(); // fetchOutputs needs one
    LocalPool pool(4);
    std::mutex mutex;
    std::map<double, std::thread::id> threadOf; // by output
    std::atomic<int> tickets{0};
    const auto body = [&](double x) {
        const int ticket = tickets++;
        kvm::print(u"ticket " + foundation::core::str::toUtf16(std::to_string(ticket)) + u"\n");
        const double output = x * 10 + ticket;
        std::lock_guard lock(mutex);
        threadOf[output] = std::this_thread::get_id();
        return output;
    };

    const OnAllPtr first = pool.submitOnAll(function(body), 1, {scalar(4)});
    const auto concatenated = FutureBase::fetchOutputs({first}, true, 1);
    ASSERT_EQ(concatenated.size(), 1u);
    EXPECT_EQ(dvGetDimensions(concatenated[0].get()), (matrix::Dimensions{4, 1}));
    const std::vector<double> outputs = valuesOf(concatenated[0].get());
    std::vector<double> sorted = outputs;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, (std::vector<double>{40, 41, 42, 43}));
    EXPECT_TRUE(first->getRead());

    // The same values as a cell, one row per task in task order.
    const auto cells = FutureBase::fetchOutputs({first}, false, 1);
    ASSERT_EQ(cells.size(), 1u);
    ASSERT_EQ(dvGetClassID(cells[0].get()), matrix::ClassID::Cell);
    EXPECT_EQ(dvGetDimensions(cells[0].get()), (matrix::Dimensions{4, 1}));
    const auto diaries = first->getDiary();
    ASSERT_TRUE(diaries.isMulti());
    ASSERT_EQ(diaries.size(), 4u);
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(valuesOf(dvGetCell(cells[0].get(), i)), std::vector<double>{outputs[i]});
        const auto ticket = static_cast<int>(outputs[i]) - 40;
        EXPECT_EQ(diaries[i],
                  u"ticket " + foundation::core::str::toUtf16(std::to_string(ticket)) + u"\n");
    }

    // A second evaluation: task i runs on the same worker as before, and
    // the four workers are distinct threads.
    const OnAllPtr second = pool.submitOnAll(function(body), 1, {scalar(5)});
    const std::vector<double> again =
        valuesOf(FutureBase::fetchOutputs({second}, true, 1)[0].get());
    ASSERT_EQ(again.size(), 4u);
    std::lock_guard lock(mutex);
    std::set<std::thread::id> workers;
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(threadOf.at(again[i]), threadOf.at(outputs[i])) << "task " << i;
        workers.insert(threadOf.at(outputs[i]));
    }
    EXPECT_EQ(workers.size(), 4u);
}

// A cancel, or the pool's shutdown, takes pinned tasks out of their queues
// and stops the running ones.
TEST(LocalPoolOnAllEnd, CancelAndShutdownUnqueuePinnedTasksAndStopRunningOnes) {
    const auto interpreter = kvm::KVM::create();
    for (bool shutdown : {false, true}) {
        std::latch started(4);
        OnAllPtr running, queued;
        {
            LocalPool pool(4);
            running =
                pool.submitOnAll(function([&](double) { return untilStopped(started); }), 1, {});
            queued = pool.submitOnAll(function([](double) {
                                          ADD_FAILURE() << "cancelled work ran";
                                          return 0;
                                      }),
                                      1, {});
            started.wait();
            EXPECT_EQ(running->getState(), FutureState::Running);
            EXPECT_EQ(queued->getState(), FutureState::Queued); // every worker is busy
            if (!shutdown) {
                queued->cancel();
                EXPECT_EQ(taskErrorsOf(queued), std::vector<std::string>(4, kCancelled));
                // Every worker is still busy, so only a pinned queue could still
                // hold the cancelled tasks: once the future is gone, nothing may.
                std::vector<std::weak_ptr<future::TaskBase>> queuedTasks;
                for (unsigned long long i = 0; i < 4; ++i) {
                    queuedTasks.push_back(queued->getMultiTask()->getTask(i));
                }
                queued.reset();
                for (const auto& task : queuedTasks) {
                    EXPECT_TRUE(task.expired());
                }
                running->cancel();
                EXPECT_TRUE(FutureBase::wait({running}, FutureState::Finished, kPatience));
            }
        }
        if (shutdown) {
            EXPECT_EQ(queued->getState(), FutureState::Finished);
            EXPECT_EQ(taskErrorsOf(queued), std::vector<std::string>(4, kCancelled));
        }
        // Asked to stop by the shutdown, the running functions return normally.
        EXPECT_EQ(taskErrorsOf(running), std::vector<std::string>(4, shutdown ? "" : kCancelled));
    }
}

} // namespace
} // namespace localpool
