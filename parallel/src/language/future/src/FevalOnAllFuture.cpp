#include <parallel/language/future/FevalOnAllFuture.hpp>

#include <parallel/language/future/FutureErrors.hpp>

#include "DiagnosticLogging.hpp"
#include "MultiTaskFolding.hpp"
#include "TimelineEvents.hpp"

namespace parallel::language::future {

namespace {

logging::Logger& logger() noexcept {
    return logging::fevalOnAllFutureLogger();
}

} // namespace

FevalOnAllFuture::FevalOnAllFuture(kcos::COSInterface* parent,
                                   boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                                   DvArrayVector inputs, std::shared_ptr<MultiTask> tasks,
                                   std::optional<long long> id)
    : FutureBase(parent, std::move(function), numOutputs,
                 PerTaskVariant<DvArrayVector>(std::move(inputs)), id),
      tasks_(std::move(tasks)) {
    const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
    initMultiTaskOutputsOrError(count);
    detail::timeline::onFutureCreated(*tasks_, count, *this, "FevalOnAllFuture");
}

FevalOnAllFuture::~FevalOnAllFuture() = default;

void FevalOnAllFuture::doCancel() {
    QZ_FUTURE_TRACE_OF(logger(), "future", getID());
    if (getState() == FutureState::Finished) {
        return;
    }
    detail::cancelEach(*tasks_);
}

boost::shared_future<void> FevalOnAllFuture::doGetWaitableFuture() {
    throw errors::FetchNextUnsupportedFutureType();
}

bool FevalOnAllFuture::doWait(FutureState state, SteadyTimePoint deadline) {
    QZ_FUTURE_TRACE_OF(logger(), "future", getID());
    if (state <= getState()) {
        logging::writeMessage(logger(), logging::kMessage, "Early return from wait.");
        return true;
    }
    if (state == FutureState::Finished) {
        return detail::waitForEachFinished(*tasks_, deadline);
    }
    doWaitForRunning(deadline);
    return false;
}

bool FevalOnAllFuture::doWaitForRunning(SteadyTimePoint deadline) {
    return anyRunning_.waitUntil(*tasks_, deadline);
}

void FevalOnAllFuture::doAfterFinishThen(boost::launch policy, std::function<void()> callback) {
    detail::afterAllFinishedThen(*tasks_, policy, std::move(callback));
}

PerTaskVariant<std::u16string> FevalOnAllFuture::doGetDiary() const {
    return detail::diariesOf(*tasks_);
}

WallClockTimePoint FevalOnAllFuture::doGetFinishTime() const {
    return detail::foldFinishTime(*tasks_);
}

PerTaskVariant<OutputsOrError> FevalOnAllFuture::doGetOutputsOrError() const {
    return detail::outputsOrErrorsOf(*tasks_);
}

WallClockTimePoint FevalOnAllFuture::doGetStartTime() const {
    QZ_FUTURE_TRACE_OF(logger(), "future", getID());
    return detail::foldStartTime(*tasks_);
}

FutureState FevalOnAllFuture::doGetState() const {
    QZ_FUTURE_TRACE_OF(logger(), "future", getID());
    return detail::foldState(*tasks_);
}

bool FevalOnAllFuture::doIsMultiFuture() const {
    return true;
}

const char* FevalOnAllFuture::doGetCosAliasName() const {
    return "parallel.FevalOnAllFuture";
}

} // namespace parallel::language::future
