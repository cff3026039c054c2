#include <parallel/language/future/FevalOnAllFuture.hpp>

#include <parallel/language/future/FutureErrors.hpp>
#include <parallel/language/future/MultiEventPromise.hpp>

#include "DiagnosticLogging.hpp"
#include "WaitUntil.hpp"

#include <algorithm>
#include <limits>
#include <vector>

namespace parallel::language::future {

namespace {

logging::Logger& logger() noexcept {
    return logging::fevalOnAllFutureLogger();
}

// Orders wall-clock times with "not set" (0) above every real time.
double sortKey(const WallClockTimePoint& time) {
    const double seconds = time.time_since_epoch().count();
    return seconds == 0.0 ? std::numeric_limits<double>::max() : seconds;
}

FutureState foldStates(const std::vector<FutureState>& states) {
    const auto any = [&](FutureState s) {
        return std::find(states.begin(), states.end(), s) != states.end();
    };
    const auto all = [&](FutureState s) {
        return std::all_of(states.begin(), states.end(), [s](FutureState t) { return t == s; });
    };
    if (any(FutureState::Unavailable)) {
        return FutureState::Unavailable;
    }
    if (any(FutureState::Running)) {
        return FutureState::Running;
    }
    if (all(FutureState::Finished)) {
        return FutureState::Finished;
    }
    if (any(FutureState::Finished)) {
        return FutureState::Running;
    }
    if (all(FutureState::Pending)) {
        return FutureState::Pending;
    }
    return FutureState::Queued;
}

} // namespace

FevalOnAllFuture::FevalOnAllFuture(kcos::COSInterface* parent,
                                   boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                                   DvArrayVector inputs, std::shared_ptr<MultiTask> tasks,
                                   std::optional<long long> id)
    : FutureBase(parent, std::move(function), numOutputs,
                 PerTaskVariant<DvArrayVector>(std::move(inputs)), id),
      tasks_(std::move(tasks)) {
    initMultiTaskOutputsOrError(tasks_->maybeResizeAndGetNumTasks());
}

FevalOnAllFuture::~FevalOnAllFuture() = default;

void FevalOnAllFuture::doCancel() {
    QZ_FUTURE_TRACE(logger());
    if (getState() == FutureState::Finished) {
        return;
    }
    const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
    for (unsigned long long i = 0; i < count; ++i) {
        tasks_->getTask(i)->cancel();
    }
}

boost::shared_future<void> FevalOnAllFuture::doGetWaitableFuture() {
    throw errors::FetchNextUnsupportedFutureType();
}

bool FevalOnAllFuture::doWait(FutureState state, SteadyTimePoint deadline) {
    QZ_FUTURE_TRACE(logger());
    if (state <= getState()) {
        logging::writeMessage(logger(), logging::kMessage, "Early return from wait.");
        return true;
    }
    if (state == FutureState::Finished) {
        const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
        for (unsigned long long i = 0; i < count; ++i) {
            if (!tasks_->getTask(i)->wait(FutureState::Finished, deadline)) {
                return false;
            }
        }
        return true;
    }
    doWaitForRunning(deadline);
    return false;
}

bool FevalOnAllFuture::doWaitForRunning(SteadyTimePoint deadline) {
    boost::shared_future<void> running;
    {
        std::lock_guard lock(runningMutex_);
        if (!runningFuture_.valid()) {
            const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
            auto anyRunning = std::make_shared<MultiEventPromise>(MultiEventPromise::Any, count);
            for (unsigned long long i = 0; i < count; ++i) {
                tasks_->getTask(i)->afterRunningThen(boost::launch::sync,
                                                     [anyRunning] { anyRunning->setOne(); });
            }
            runningFuture_ = anyRunning->getFuture().share();
        }
        running = runningFuture_;
    }
    return detail::waitUntil(running, deadline);
}

void FevalOnAllFuture::doAfterFinishThen(boost::launch policy, std::function<void()> callback) {
    const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
    auto allFinished = std::make_shared<MultiEventPromise>(MultiEventPromise::All, count);
    for (unsigned long long i = 0; i < count; ++i) {
        tasks_->getTask(i)->afterFinishThen(boost::launch::sync,
                                            [allFinished] { allFinished->setOne(); });
    }
    allFinished->getFuture().then(
        policy, [callback = std::move(callback)](boost::future<void>) { callback(); });
}

PerTaskVariant<std::u16string> FevalOnAllFuture::doGetDiary() const {
    const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
    std::vector<std::u16string> diaries;
    diaries.reserve(count);
    for (unsigned long long i = 0; i < count; ++i) {
        diaries.push_back(tasks_->getTask(i)->getDiary());
    }
    return PerTaskVariant<std::u16string>(std::move(diaries));
}

WallClockTimePoint FevalOnAllFuture::doGetFinishTime() const {
    const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
    WallClockTimePoint latest{};
    for (unsigned long long i = 0; i < count; ++i) {
        const WallClockTimePoint finish = tasks_->getTask(i)->getFinishTime();
        if (i == 0 || sortKey(finish) > sortKey(latest)) {
            latest = finish;
        }
    }
    return latest;
}

PerTaskVariant<OutputsOrError> FevalOnAllFuture::doGetOutputsOrError() const {
    const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
    std::vector<OutputsOrError> results;
    results.reserve(count);
    for (unsigned long long i = 0; i < count; ++i) {
        results.push_back(tasks_->getTask(i)->getOutputsOrError());
    }
    return PerTaskVariant<OutputsOrError>(std::move(results));
}

WallClockTimePoint FevalOnAllFuture::doGetStartTime() const {
    QZ_FUTURE_TRACE(logger());
    const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
    WallClockTimePoint earliest{};
    for (unsigned long long i = 0; i < count; ++i) {
        const WallClockTimePoint start = tasks_->getTask(i)->getStartTime();
        if (i == 0 || sortKey(start) < sortKey(earliest)) {
            earliest = start;
        }
    }
    return earliest;
}

FutureState FevalOnAllFuture::doGetState() const {
    QZ_FUTURE_TRACE(logger());
    const unsigned long long count = tasks_->maybeResizeAndGetNumTasks();
    std::vector<FutureState> states;
    states.reserve(count);
    for (unsigned long long i = 0; i < count; ++i) {
        states.push_back(tasks_->getTask(i)->getState());
    }
    return foldStates(states);
}

bool FevalOnAllFuture::doIsMultiFuture() const {
    return true;
}

const char* FevalOnAllFuture::doGetCosAliasName() const {
    return "parallel.FevalOnAllFuture";
}

} // namespace parallel::language::future
