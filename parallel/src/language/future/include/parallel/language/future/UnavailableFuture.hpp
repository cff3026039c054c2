#pragma once

#include <parallel/language/future/FutureBase.hpp>

#include <string>

namespace parallel::language::future {

// Stands in for a future that can no longer be reached (its language object
// was deleted, or never held one): ID -1, state Unavailable, no work and no
// outputs. It refuses waiting, outputs and continuations; the operations on
// vectors of futures recognise it by its ID. Held by std::shared_ptr.
class QZ_FUTURE_API UnavailableFuture : public FutureBase {
public:
    // `aliasName`: the language class name the object presents.
    explicit UnavailableFuture(std::string aliasName = "parallel.Future");
    ~UnavailableFuture() override;

private:
    void doCancel() override;
    boost::shared_future<void> doGetWaitableFuture() override;
    // Throws WaitOnUnavailableFuture.
    bool doWait(FutureState state, SteadyTimePoint deadline) override;
    // Throws ContinuationOnPending; the callback is released unrun.
    void doAfterFinishThen(boost::launch policy, std::function<void()> callback) override;
    PerTaskVariant<std::u16string> doGetDiary() const override;
    WallClockTimePoint doGetFinishTime() const override;
    // Throws FetchOutputsOnUnavailableFuture.
    PerTaskVariant<OutputsOrError> doGetOutputsOrError() const override;
    WallClockTimePoint doGetStartTime() const override;
    FutureState doGetState() const override;
    const char* doGetCosAliasName() const override;

    std::string aliasName_;
};

} // namespace parallel::language::future
