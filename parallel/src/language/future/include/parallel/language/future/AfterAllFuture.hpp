#pragma once

#include <parallel/language/future/ContinuationTask.hpp>
#include <parallel/language/future/FutureBase.hpp>

#include <cstddef>
#include <memory>
#include <vector>

namespace parallel::language::future {

// The future of a function run once, on the interpreter's thread, after all
// its predecessor futures have finished: one continuation task, to which
// every state, time and result query is forwarded. fetchNext can take it.
//
// Ownership and threads as for AfterEachFuture: the command distributor holds
// the task until the continuation is done; the task's callbacks hold the
// future weakly and fill its caches on the interpreter thread.
class QZ_FUTURE_API AfterAllFuture : public FutureBase {
    struct Token {};

public:
    // Builds and submits the continuation (see ContinuationTask::build).
    // Throws std::invalid_argument for no predecessors. Interpreter thread.
    static std::shared_ptr<AfterAllFuture>
    build(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
          unsigned int numOutputs, std::vector<std::shared_ptr<FutureBase>> predecessors,
          std::vector<std::size_t> predecessorSize, bool passFuture);

    // `predecessorArray`: the predecessors' object array, shared with `task`.
    AfterAllFuture(Token, kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                   unsigned int numOutputs, boost::intrusive_ptr<dvArray> predecessorArray,
                   std::shared_ptr<ContinuationTask> task);
    ~AfterAllFuture() override;

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

    std::shared_ptr<ContinuationTask> task_;
};

} // namespace parallel::language::future
