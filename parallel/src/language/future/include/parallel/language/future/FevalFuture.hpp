#pragma once

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/TaskBase.hpp>

namespace parallel::language::future {

// The future of one evaluation: state, times, diary, outputs and waits are
// its one task's, asked afresh on every call.
//
// Ownership: the future holds its task strongly; the executor may hold it
// too, so the task may outlive the future. Destroying the future cancels
// nothing.
//
// Threads: like every future, its operations are called from one thread at a
// time. It takes no lock of its own: thread safety is the task's.
class QZ_FUTURE_API FevalFuture : public FutureBase {
public:
    // `task` must not be null. An empty `id` draws the next ID.
    FevalFuture(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                unsigned int numOutputs, DvArrayVector inputs, std::shared_ptr<TaskBase> task,
                std::optional<long long> id = std::nullopt);
    // The same with inputs copied already, which the future keeps as they are
    // (its task may read the same arrays).
    FevalFuture(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                unsigned int numOutputs, InputCopies inputs, std::shared_ptr<TaskBase> task,
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
    DvArrayVector* doOutputsToWrap() const noexcept override { return &outputsToWrap_; }

    std::shared_ptr<TaskBase> task_;
    mutable DvArrayVector outputsToWrap_; // see FutureBase::doOutputsToWrap
};

} // namespace parallel::language::future
