#include <parallel/language/future/UnavailableFuture.hpp>

#include <parallel/language/future/FutureErrors.hpp>

namespace parallel::language::future {

UnavailableFuture::UnavailableFuture(std::string aliasName) : aliasName_(std::move(aliasName)) {}

UnavailableFuture::~UnavailableFuture() = default;

void UnavailableFuture::doCancel() {}

boost::shared_future<void> UnavailableFuture::doGetWaitableFuture() {
    return {};
}

bool UnavailableFuture::doWait(FutureState, SteadyTimePoint) {
    throw errors::WaitOnUnavailableFuture();
}

void UnavailableFuture::doAfterFinishThen(boost::launch, std::function<void()>) {
    throw errors::ContinuationOnPending();
}

PerTaskVariant<std::u16string> UnavailableFuture::doGetDiary() const {
    return {};
}

WallClockTimePoint UnavailableFuture::doGetFinishTime() const {
    return {};
}

PerTaskVariant<OutputsOrError> UnavailableFuture::doGetOutputsOrError() const {
    throw errors::FetchOutputsOnUnavailableFuture();
}

WallClockTimePoint UnavailableFuture::doGetStartTime() const {
    return {};
}

FutureState UnavailableFuture::doGetState() const {
    return FutureState::Unavailable;
}

const char* UnavailableFuture::doGetCosAliasName() const {
    return aliasName_.c_str();
}

} // namespace parallel::language::future
