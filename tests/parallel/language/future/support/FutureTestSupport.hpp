#pragma once

// Futures over test tasks, and an interpreter for the calling thread.

#include "support/TestTask.hpp"

#include <parallel/language/future/FevalFuture.hpp>
#include <parallel/language/future/FevalOnAllFuture.hpp>
#include <parallel/language/future/ScopedTaskFinishedListener.hpp>
#include <parallel/language/future/VectorMultiTask.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <cmddistributor/RuntimeException.hpp>
#include <kvm/KVM.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <limits>

namespace parallel::language::future::testing {

using Futures = std::vector<std::shared_ptr<FutureBase>>;
using Veldspire::KException::KExceptionEnvelope;

// A timeout no test reaches.
inline const Seconds kForever(std::numeric_limits<double>::max());
// A timeout that only a fault reaches: the test then fails instead of hanging.
inline const Seconds kGenerous(60.0);

inline SteadyTimePoint secondsFromNow(double seconds) {
    return clock::getCurrentSteadyTime() + Seconds(seconds);
}

inline SteadyTimePoint noDeadline() {
    return SteadyTimePoint(kForever);
}

// An error as the language sees it.
inline KExceptionEnvelope envelopeOf(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const KExceptionEnvelope& envelope) {
        return envelope;
    } catch (const cmddistributor::RuntimeException& e) {
        return Veldspire::KException::CreateKException(e);
    } catch (const foundation::core::except::IUserException& e) {
        return KExceptionEnvelope(e, nullptr);
    }
}

// Shares `array` with the test, taking over its one reference.
inline boost::intrusive_ptr<dvArray> own(matrix::unique_dvArray array) {
    return boost::intrusive_ptr<dvArray>(matrix::to_korvex(std::move(array)), false);
}

// A function handle named `name` that runs `body`.
inline boost::intrusive_ptr<dvArray> functionHandle(const char* name, matrix::FunctionBody body) {
    return own(matrix::createFunctionHandle(name, std::move(body)));
}

inline boost::intrusive_ptr<dvArray> scalar(double value) {
    return own(dvCreateDoubleScalar(value));
}

inline boost::intrusive_ptr<dvArray> text(const char* value) {
    return own(matrix::create(value, std::char_traits<char>::length(value)));
}

inline bool isEmptyOfClass(const dvArray* array, const char* className) {
    return std::string(dvGetClassName(array)) == className &&
           dvGetDimensions(array) == matrix::Dimensions{0, 0};
}

inline double valueOf(const dvArray* array) {
    return dvGetDoubles(array)[0];
}

// A future over a fresh test task; `numOutputs` outputs requested.
struct TestFuture {
    std::shared_ptr<TestTask> task = TestTask::make();
    std::shared_ptr<FevalFuture> future;

    explicit TestFuture(unsigned int numOutputs = 1, DvArrayVector inputs = {})
        : future(std::make_shared<FevalFuture>(nullptr, nullptr, numOutputs, std::move(inputs),
                                               task)) {}

    TestFuture& submitted() {
        task->doNotifyPending();
        task->doNotifyQueued();
        return *this;
    }
    TestFuture& running() {
        submitted();
        task->doNotifyRunning();
        return *this;
    }
    TestFuture& finishedWith(DvArrayVector outputs) {
        task->result = OutputsOrError(std::optional<DvArrayVector>(std::move(outputs)));
        running();
        task->doNotifyFinished();
        return *this;
    }
    TestFuture& failedWith(std::exception_ptr error) {
        task->result = OutputsOrError(std::move(error));
        running();
        task->doNotifyFinished();
        return *this;
    }
};

// A future of one evaluation on each of `n` workers, over test tasks; every
// task shares `inputs`.
struct TestOnAllFuture {
    std::vector<std::shared_ptr<TestTask>> tasks;
    std::shared_ptr<FevalOnAllFuture> future;

    explicit TestOnAllFuture(std::size_t n, DvArrayVector inputs = {}) {
        std::vector<std::shared_ptr<TaskBase>> collection;
        for (std::size_t i = 0; i < n; ++i) {
            tasks.push_back(TestTask::make());
            collection.push_back(tasks.back());
        }
        future = std::make_shared<FevalOnAllFuture>(
            nullptr, nullptr, 1, std::move(inputs),
            std::make_shared<VectorMultiTask>(std::move(collection)));
    }
};

// Counts task-finished notifications while registered, running `action` on each.
struct CountingListener : TaskFinishedListener {
    std::atomic<int> calls{0};
    std::function<void()> action;
    void onTaskFinished() override {
        ++calls;
        if (action) {
            action();
        }
    }
};

// The least a future with predecessors needs: it holds their language objects,
// as every continuation future does, and is finished.
class ChainLink final : public FutureBase {
public:
    explicit ChainLink(const Futures& predecessors,
                       boost::intrusive_ptr<dvArray> function = nullptr)
        : FutureBase(nullptr, std::move(function), 0, predecessors, std::nullopt) {}

private:
    void doCancel() override {}
    boost::shared_future<void> doGetWaitableFuture() override { return {}; }
    bool doWait(FutureState, SteadyTimePoint) override { return true; }
    void doAfterFinishThen(boost::launch, std::function<void()>) override {}
    PerTaskVariant<std::u16string> doGetDiary() const override { return std::u16string(); }
    WallClockTimePoint doGetFinishTime() const override { return {}; }
    PerTaskVariant<OutputsOrError> doGetOutputsOrError() const override {
        return OutputsOrError(std::optional<DvArrayVector>());
    }
    WallClockTimePoint doGetStartTime() const override { return {}; }
    FutureState doGetState() const override { return FutureState::Finished; }
    const char* doGetCosAliasName() const override { return "parallel.AfterAllFuture"; }
};

// Makes the test's thread an interpreter thread for the test's duration.
class InterpreterTest : public ::testing::Test {
protected:
    std::shared_ptr<kvm::KVM> interpreter = kvm::KVM::create();
};

} // namespace parallel::language::future::testing
