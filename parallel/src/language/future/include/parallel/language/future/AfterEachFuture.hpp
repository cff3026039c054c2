#pragma once

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/MultiTask.hpp>

#include <cstddef>
#include <memory>
#include <vector>

namespace parallel::language::future {

// The future of a function run once per predecessor future, each run on the
// interpreter's thread as soon as its own predecessor has finished: one
// continuation task per predecessor, in predecessor order. State and times
// are folded from the tasks as for an evaluation on every worker; inputs,
// outputs and errors are per task, so one failed predecessor makes only its
// own entry an error. It cannot be used with fetchNext.
//
// Ownership: the future holds its tasks; the command distributor holds each
// task until its continuation is done, so dropping the future stops nothing.
// The tasks' callbacks hold the future weakly: once it is gone they do nothing.
//
// Threads: build and the future's operations on the interpreter thread; the
// per-task caches are filled there too, by callbacks run inside the
// continuation (inputs) and when it completes (outputs or error). Waits for
// Running share one future made under anyRunning_'s mutex.
class QZ_FUTURE_API AfterEachFuture : public FutureBase {
    struct Token {};

public:
    // Builds and submits one continuation per predecessor (see
    // ContinuationTask::build; each gets a 1-by-1 predecessor array). No
    // predecessors give a future without tasks, Finished at once.
    // `predecessorSize` is not used. Interpreter thread.
    static std::shared_ptr<AfterEachFuture>
    build(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
          unsigned int numOutputs, std::vector<std::shared_ptr<FutureBase>> predecessors,
          std::vector<std::size_t> predecessorSize, bool passFuture);

    // `predecessorArray`: the predecessors' object array, shared with the tasks.
    AfterEachFuture(Token, kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                    unsigned int numOutputs, boost::intrusive_ptr<dvArray> predecessorArray,
                    std::shared_ptr<MultiTask> tasks);
    ~AfterEachFuture() override;

private:
    // Cancels every continuation unless all have finished.
    void doCancel() override;
    // Always throws FetchNextUnsupportedFutureType.
    boost::shared_future<void> doGetWaitableFuture() override;
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
