#pragma once

// A task of a minimal executor for tests: the test drives its notifications
// and chooses what doCancel, doGetOutputsOrError and doGetDiary do.

#include <parallel/language/future/TaskBase.hpp>

#include <atomic>
#include <functional>
#include <limits>
#include <memory>

namespace parallel::language::future::testing {

class TestTask : public TaskBase {
public:
    using TaskBase::doNotifyCancelled;
    using TaskBase::doNotifyFinished;
    using TaskBase::doNotifyPending;
    using TaskBase::doNotifyQueued;
    using TaskBase::doNotifyRunning;

    static std::shared_ptr<TestTask> make() { return std::make_shared<TestTask>(); }

    // Pending, Queued, Running, Finished in order.
    void runToFinish() {
        doNotifyPending();
        doNotifyQueued();
        doNotifyRunning();
        doNotifyFinished();
    }

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

inline SteadyTimePoint secondsFromNow(double seconds) {
    return clock::getCurrentSteadyTime() + Seconds(seconds);
}

inline SteadyTimePoint noDeadline() {
    return SteadyTimePoint(Seconds(std::numeric_limits<double>::max()));
}

} // namespace parallel::language::future::testing
