#pragma once

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/TaskBase.hpp>

namespace parallel::language::future {

// The future of one evaluation: everything about execution is its one task's.
// The task may outlive the future; destroying the future cancels nothing.
// Takes no lock: thread safety is the task's.
class QZ_FUTURE_API FevalFuture : public FutureBase {
public:
    // `task` must not be null. An empty `id` draws the next ID.
    FevalFuture(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                unsigned int numOutputs, DvArrayVector inputs, std::shared_ptr<TaskBase> task,
                std::optional<long long> id = std::nullopt);
    ~FevalFuture() override;

    std::shared_ptr<TaskBase> getTask() const { return task_; }

private:
    void doCancel() override;
    boost::shared_future<void> doGetWaitableFuture() override;
    bool doWait(FutureState state, SteadyTimePoint deadline) override;
    void doAfterFinishThen(boost::launch policy, std::function<void()> callback) override;
    PerTaskVariant<std::u16string> doGetDiary() const override;
    WallClockTimePoint doGetFinishTime() const override;
    PerTaskVariant<OutputsOrError> doGetOutputsOrError() const override;
    WallClockTimePoint doGetStartTime() const override;
    FutureState doGetState() const override;
    const char* doGetCosAliasName() const override;

    std::shared_ptr<TaskBase> task_;
};

} // namespace parallel::language::future
