#pragma once

// The task of a minimal executor, shared by tests and benchmarks: the caller
// drives its notifications and chooses what doCancel, doGetOutputsOrError and
// doGetDiary do. Any thread; `onCancel`, `result` and `diary` are set before
// the task is shared.

#include <parallel/language/future/TaskBase.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

namespace parallel::language::future::testing {

class TestTask : public TaskBase {
public:
    using TaskBase::doNotifyCancelled;
    using TaskBase::doNotifyFinished;
    using TaskBase::doNotifyPending;
    using TaskBase::doNotifyPendingAndQueued;
    using TaskBase::doNotifyQueued;
    using TaskBase::doNotifyRunning;

    TestTask() = default;
    explicit TestTask(OutputsOrError outputs) : result(std::move(outputs)) {}

    static std::shared_ptr<TestTask> make() { return std::make_shared<TestTask>(); }

    // Notifies Pending, then each later state up to `state`.
    void advanceTo(FutureState state) {
        doNotifyPending();
        if (state >= FutureState::Queued) {
            doNotifyQueued();
        }
        if (state >= FutureState::Running) {
            doNotifyRunning();
        }
        if (state >= FutureState::Finished) {
            doNotifyFinished();
        }
    }
    void runToFinish() { advanceTo(FutureState::Finished); }

    std::function<void()> onCancel;
    OutputsOrError result{std::optional<DvArrayVector>(DvArrayVector{})};
    std::u16string diary;
    std::atomic<int> cancelCalls{0};
    std::atomic<int> outputsCalls{0};

private:
    void doCancel() override {
        ++cancelCalls;
        if (onCancel) {
            onCancel();
        }
    }
    OutputsOrError doGetOutputsOrError() override {
        ++outputsCalls;
        return result;
    }
    std::u16string doGetDiary() override { return diary; }
};

} // namespace parallel::language::future::testing
