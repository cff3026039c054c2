#include <parallel/language/future/FevalFuture.hpp>

#include "DiagnosticLogging.hpp"
#include "TimelineEvents.hpp"

namespace parallel::language::future {

FevalFuture::FevalFuture(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                         unsigned int numOutputs, DvArrayVector inputs,
                         std::shared_ptr<TaskBase> task, std::optional<long long> id)
    : FevalFuture(parent, std::move(function), numOutputs, InputCopies(std::move(inputs)),
                  std::move(task), id) {}

FevalFuture::FevalFuture(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                         unsigned int numOutputs, InputCopies inputs,
                         std::shared_ptr<TaskBase> task, std::optional<long long> id)
    : FutureBase(parent, std::move(function), numOutputs, std::move(inputs), id),
      task_(std::move(task)) {
    detail::timeline::onFutureCreated(task_.get(), *this, "FevalFuture");
}

FevalFuture::~FevalFuture() = default;

void FevalFuture::doCancel() {
    task_->cancel();
}

boost::shared_future<void> FevalFuture::doGetWaitableFuture() {
    return task_->getWaitableFuture();
}

bool FevalFuture::doWait(FutureState state, SteadyTimePoint deadline) {
    QZ_FUTURE_TRACE_OF(logging::fevalFutureLogger(), "future", getID());
    return task_->wait(state, deadline);
}

void FevalFuture::doAfterFinishThen(boost::launch policy, std::function<void()> callback) {
    task_->afterFinishThen(policy, std::move(callback));
}

PerTaskVariant<std::u16string> FevalFuture::doGetDiary() const {
    return task_->getDiary();
}

WallClockTimePoint FevalFuture::doGetFinishTime() const {
    return task_->getFinishTime();
}

PerTaskVariant<OutputsOrError> FevalFuture::doGetOutputsOrError() const {
    return PerTaskVariant<OutputsOrError>(task_->getOutputsOrError());
}

WallClockTimePoint FevalFuture::doGetStartTime() const {
    return task_->getStartTime();
}

FutureState FevalFuture::doGetState() const {
    return task_->getState();
}

const char* FevalFuture::doGetCosAliasName() const {
    return "parallel.FevalFuture";
}

} // namespace parallel::language::future
