#include <parallel/language/future/AfterAllFuture.hpp>

#include "ContinuationCallbacks.hpp"
#include "TimelineEvents.hpp"

namespace parallel::language::future {

std::shared_ptr<AfterAllFuture>
AfterAllFuture::build(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                      unsigned int numOutputs,
                      std::vector<std::shared_ptr<FutureBase>> predecessors,
                      std::vector<std::size_t> predecessorSize, bool passFuture) {
    // One object array of the predecessors, held by the task and the future
    // (made once the task's build would get that far: its errors come first).
    boost::intrusive_ptr<dvArray> predecessorArray;
    if (function && !predecessors.empty()) {
        predecessorArray.reset(matrix::to_korvex(FutureBase::toKorvexArray(predecessors, {})),
                               false);
    }
    std::shared_ptr<ContinuationTask> task =
        ContinuationTask::build(function, numOutputs, predecessors, predecessorArray,
                                std::move(predecessorSize), passFuture);
    auto future = std::make_shared<AfterAllFuture>(Token{}, parent, std::move(function), numOutputs,
                                                   std::move(predecessorArray), task);
    detail::attachCacheCallbacks(
        task, std::weak_ptr<AfterAllFuture>(future), detail::kAfterAllFutureSource,
        [](AfterAllFuture& self, DvArrayVector inputs) {
            self.setInputs(PerTaskVariant<DvArrayVector>(std::move(inputs)));
        },
        [](AfterAllFuture& self, OutputsOrError result) {
            self.setOutputsOrError(PerTaskVariant<OutputsOrError>(std::move(result)));
        });
    return future;
}

AfterAllFuture::AfterAllFuture(Token, kcos::COSInterface* parent,
                               boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                               boost::intrusive_ptr<dvArray> predecessorArray,
                               std::shared_ptr<ContinuationTask> task)
    : FutureBase(parent, std::move(function), numOutputs, std::move(predecessorArray),
                 std::nullopt),
      task_(std::move(task)) {
    detail::timeline::onFutureCreated(task_.get(), *this, "AfterAllFuture");
}

AfterAllFuture::~AfterAllFuture() = default;

void AfterAllFuture::doCancel() {
    task_->cancel();
}

boost::shared_future<void> AfterAllFuture::doGetWaitableFuture() {
    return task_->getWaitableFuture();
}

bool AfterAllFuture::doWait(FutureState state, SteadyTimePoint deadline) {
    return task_->wait(state, deadline);
}

void AfterAllFuture::doAfterFinishThen(boost::launch policy, std::function<void()> callback) {
    task_->afterFinishThen(policy, std::move(callback));
}

PerTaskVariant<std::u16string> AfterAllFuture::doGetDiary() const {
    return task_->getDiary();
}

WallClockTimePoint AfterAllFuture::doGetFinishTime() const {
    return task_->getFinishTime();
}

PerTaskVariant<OutputsOrError> AfterAllFuture::doGetOutputsOrError() const {
    return PerTaskVariant<OutputsOrError>(task_->getOutputsOrError());
}

WallClockTimePoint AfterAllFuture::doGetStartTime() const {
    return task_->getStartTime();
}

FutureState AfterAllFuture::doGetState() const {
    return task_->getState();
}

const char* AfterAllFuture::doGetCosAliasName() const {
    return "parallel.AfterAllFuture";
}

} // namespace parallel::language::future
