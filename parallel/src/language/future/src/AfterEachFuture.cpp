#include <parallel/language/future/AfterEachFuture.hpp>

#include <parallel/language/future/ContinuationTask.hpp>
#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/VectorMultiTask.hpp>

#include "ContinuationCallbacks.hpp"
#include "MultiTaskFolding.hpp"
#include "TimelineEvents.hpp"

namespace parallel::language::future {

std::shared_ptr<AfterEachFuture>
AfterEachFuture::build(kcos::COSInterface* parent, boost::intrusive_ptr<dvArray> function,
                       unsigned int numOutputs,
                       std::vector<std::shared_ptr<FutureBase>> predecessors,
                       std::vector<std::size_t> /*predecessorSize*/, bool passFuture) {
    std::vector<std::shared_ptr<ContinuationTask>> continuations;
    continuations.reserve(predecessors.size());
    // Each continuation gets its own predecessor as a scalar; the shape
    // matters only to a function that receives the future itself.
    const auto shapeOfOne = [passFuture] {
        return passFuture ? std::vector<std::size_t>{1, 1} : std::vector<std::size_t>{};
    };
    // One object array of all predecessors, held by the future and by each
    // continuation, which follows its own element (made once the
    // continuations' build would get that far: its errors come first).
    boost::intrusive_ptr<dvArray> predecessorArray;
    if (function && !predecessors.empty()) {
        predecessorArray.reset(matrix::to_korvex(FutureBase::toKorvexArray(predecessors, {})),
                               false);
    }
    // The interpreter and its distributor, looked up once for all.
    const ContinuationTask::Destination destination = ContinuationTask::Destination::current();
    try {
        for (std::size_t i = 0; i < predecessors.size(); ++i) {
            continuations.push_back(ContinuationTask::build(
                destination, function, numOutputs, std::span(&predecessors[i], 1), predecessorArray,
                shapeOfOne(), passFuture, i));
        }
    } catch (...) {
        // A predecessor refused its continuation: the call fails as a whole,
        // so the continuations already submitted must not run either.
        for (const auto& continuation : continuations) {
            continuation->cancel();
        }
        throw;
    }
    if (!predecessorArray) {
        predecessorArray.reset(matrix::to_korvex(FutureBase::toKorvexArray(predecessors, {})),
                               false);
    }
    auto future = std::make_shared<AfterEachFuture>(
        Token{}, parent, std::move(function), numOutputs, std::move(predecessorArray),
        std::make_shared<VectorMultiTask>(
            std::vector<std::shared_ptr<TaskBase>>(continuations.begin(), continuations.end())));
    const std::weak_ptr<AfterEachFuture> weakFuture = future;
    for (std::size_t i = 0; i < continuations.size(); ++i) {
        detail::attachCacheCallbacks(
            continuations[i], weakFuture, detail::kAfterEachFutureSource, destination.kcrID,
            [i](AfterEachFuture& self, DvArrayVector inputs) { self.setInputs(i, inputs); },
            [i](AfterEachFuture& self, OutputsOrError result) {
                self.setOutputsOrError(i, result);
            });
    }
    return future;
}

AfterEachFuture::AfterEachFuture(Token, kcos::COSInterface* parent,
                                 boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                                 boost::intrusive_ptr<dvArray> predecessorArray,
                                 std::shared_ptr<MultiTask> tasks)
    : FutureBase(parent, std::move(function), numOutputs, std::move(predecessorArray),
                 std::nullopt),
      tasks_(std::move(tasks)) {
    const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
    initMultiTaskInputs(count);
    initMultiTaskOutputsOrError(count);
    detail::timeline::onFutureCreated(*tasks_, count, *this, "AfterEachFuture");
}

AfterEachFuture::~AfterEachFuture() = default;

void AfterEachFuture::doCancel() {
    if (getState() != FutureState::Finished) {
        detail::cancelEach(*tasks_);
    }
}

boost::shared_future<void> AfterEachFuture::doGetWaitableFuture() {
    throw errors::FetchNextUnsupportedFutureType();
}

bool AfterEachFuture::doWait(FutureState state, SteadyTimePoint deadline) {
    if (state <= getState()) {
        return true;
    }
    if (state == FutureState::Finished) {
        return detail::waitForEachFinished(*tasks_, deadline);
    }
    doWaitForRunning(deadline);
    return false;
}

bool AfterEachFuture::doWaitForRunning(SteadyTimePoint deadline) {
    return anyRunning_.waitUntil(*tasks_, deadline);
}

void AfterEachFuture::doAfterFinishThen(boost::launch policy, std::function<void()> callback) {
    detail::afterAllFinishedThen(*tasks_, policy, std::move(callback));
}

PerTaskVariant<std::u16string> AfterEachFuture::doGetDiary() const {
    return detail::diariesOf(*tasks_);
}

WallClockTimePoint AfterEachFuture::doGetFinishTime() const {
    return detail::foldFinishTime(*tasks_);
}

PerTaskVariant<OutputsOrError> AfterEachFuture::doGetOutputsOrError() const {
    return detail::outputsOrErrorsOf(*tasks_);
}

WallClockTimePoint AfterEachFuture::doGetStartTime() const {
    return detail::foldStartTime(*tasks_);
}

FutureState AfterEachFuture::doGetState() const {
    return detail::foldState(*tasks_);
}

bool AfterEachFuture::doIsMultiFuture() const {
    return true;
}

const char* AfterEachFuture::doGetCosAliasName() const {
    return "parallel.AfterEachFuture";
}

} // namespace parallel::language::future
