#pragma once

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/MultiTask.hpp>

namespace parallel::language::future {

// The future of one evaluation on every worker of a pool: one task per
// worker, asked afresh from its collection by every operation. State, start
// and finish times are folded from the tasks' on every call; diary, outputs
// and errors are per task. It cannot be used with fetchNext.
//
// Threads: like every future, its operations are called from one thread at a
// time, except waits: waits for Running share one future made under
// anyRunning_'s mutex, so concurrent waits on one future are safe. Task
// callbacks only count promises down.
class QZ_FUTURE_API FevalOnAllFuture : public FutureBase {
public:
    // `tasks` must not be null. An empty `id` draws the next ID.
    FevalOnAllFuture(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                     unsigned int numOutputs, DvArrayVector inputs,
                     std::shared_ptr<MultiTask> tasks, std::optional<long long> id = std::nullopt);
    ~FevalOnAllFuture() override;

    std::shared_ptr<MultiTask> getMultiTask() const { return tasks_; }

private:
    void doCancel() override;
    // Always throws FetchNextUnsupportedFutureType.
    boost::shared_future<void> doGetWaitableFuture() override;
    // Waiting for Finished waits on each task in turn; waiting for an
    // earlier state waits for the first task to run and then answers false,
    // so that the caller's next pass sees the new state.
    bool doWait(FutureState state, SteadyTimePoint deadline) override;
    void doAfterFinishThen(boost::launch policy, std::function<void()> callback) override;
    PerTaskVariant<std::u16string> doGetDiary() const override;
    WallClockTimePoint doGetFinishTime() const override;
    PerTaskVariant<OutputsOrError> doGetOutputsOrError() const override;
    WallClockTimePoint doGetStartTime() const override;
    FutureState doGetState() const override;
    bool doIsMultiFuture() const override;
    const char* doGetCosAliasName() const override;

    bool doWaitForRunning(SteadyTimePoint deadline);

    std::shared_ptr<MultiTask> tasks_;
    detail::AnyTaskRunning anyRunning_;
};

} // namespace parallel::language::future
