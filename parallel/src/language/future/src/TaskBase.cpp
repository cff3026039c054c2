#include <parallel/language/future/TaskBase.hpp>

#include <parallel/language/future/FutureErrors.hpp>

#include "DiagnosticLogging.hpp"
#include "TaskFinishedListeners.hpp"
#include "TimelineEvents.hpp"
#include "WaitUntil.hpp"

#include <boost/exception/diagnostic_information.hpp>

namespace parallel::language::future {

namespace {

logging::Logger& logger() noexcept {
    return logging::taskBaseLogger();
}

// Attaches `callback` to `future` under `policy`; the continuation's own
// future, and with it any exception of the callback, is dropped.
void attach(boost::shared_future<void> future, boost::launch policy,
            std::function<void()> callback) {
    future.then(policy,
                [callback = std::move(callback)](boost::shared_future<void>) { callback(); });
}

// Finished and Cancelled: the first of them makes the finished future ready.
constexpr unsigned long long kFinishingEvents = 2;

} // namespace

TaskBase::TaskBase()
    : runningFuture_(runningPromise_.get_future().share()),
      finishedPromise_(MultiEventPromise::Any, kFinishingEvents),
      finishedFuture_(finishedPromise_.getFuture().share()) {}

TaskBase::~TaskBase() {
    detail::timeline::onDestroyed(this);
}

void TaskBase::cancel() noexcept {
    if (getState() == FutureState::Finished) {
        logging::writeMessage(logger(), logging::kMessage,
                              "cancel returned early because state is finished.");
        return;
    }
    try {
        doCancel();
    } catch (...) {
        logging::writeMessage(logger(), logging::kCaughtException, [](std::ostream& out) {
            out << "Exception caught: " << boost::current_exception_diagnostic_information(true);
        });
    }
    doNotifyCancelled();
}

bool TaskBase::wait(FutureState target, const SteadyTimePoint& deadline) {
    QZ_FUTURE_TRACE(logger());
    if (target <= getState()) {
        logging::writeMessage(logger(), logging::kMessage, "Early return from wait.");
        return true;
    }
    if (target == FutureState::Running) {
        boost::shared_future<void> running;
        {
            foundation::core::sync::LockGuard lock(mutex_);
            running = runningFuture_;
        }
        return detail::waitUntil(running, deadline);
    }
    try {
        return detail::waitUntil(finishedFuture_, deadline);
    } catch (const boost::future_uninitialized&) {
        throw errors::WaitOnUnavailableFuture();
    } catch (...) {
        throw errors::UnknownWaitErrors();
    }
}

void TaskBase::afterRunningThen(boost::launch policy, std::function<void()> callback) {
    boost::shared_future<void> running;
    {
        foundation::core::sync::LockGuard lock(mutex_);
        running = runningFuture_;
    }
    attach(std::move(running), policy, std::move(callback));
}

void TaskBase::afterFinishThen(boost::launch policy, std::function<void()> callback) {
    doAfterFinishThen(policy, std::move(callback));
}

void TaskBase::doAfterFinishThen(boost::launch policy, std::function<void()> callback) {
    attach(finishedFuture_, policy, std::move(callback));
}

FutureState TaskBase::getState() const noexcept {
    QZ_FUTURE_TRACE(logger());
    foundation::core::sync::LockGuard lock(mutex_);
    return state_;
}

WallClockTimePoint TaskBase::getStartTime() const {
    foundation::core::sync::LockGuard lock(mutex_);
    return startTime_;
}

WallClockTimePoint TaskBase::getFinishTime() const {
    foundation::core::sync::LockGuard lock(mutex_);
    return finishTime_;
}

Seconds TaskBase::getRunningDuration() const {
    const WallClockTimePoint finish = getFinishTime();
    const WallClockTimePoint start = getStartTime();
    return clock::calcDuration(start, finish);
}

std::u16string TaskBase::getDiary() {
    return doGetDiary();
}

OutputsOrError TaskBase::getOutputsOrError() {
    QZ_FUTURE_TRACE(logger());
    bool cancelled = false;
    FutureState state = FutureState::Unavailable;
    {
        foundation::core::sync::LockGuard lock(mutex_);
        cancelled = cancelled_;
        state = state_;
    }
    if (cancelled) {
        return OutputsOrError(std::make_exception_ptr(errors::ExecutionCancelled()));
    }
    if (state == FutureState::Finished) {
        OutputsOrError outputsOrError = doGetOutputsOrError();
        if (outputsOrError.hasError()) {
            detail::timeline::onFailed(this);
        }
        return outputsOrError;
    }
    return OutputsOrError(std::optional<DvArrayVector>());
}

boost::shared_future<void> TaskBase::getWaitableFuture() const {
    return finishedFuture_;
}

void TaskBase::doNotifyPending() {
    QZ_FUTURE_TRACE(logger());
    foundation::core::sync::LockGuard lock(mutex_);
    if (!cancelled_) {
        setState(FutureState::Pending);
    }
}

void TaskBase::doNotifyQueued() {
    QZ_FUTURE_TRACE(logger());
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (state_ == FutureState::Running) {
            // Back to a queue: the next run gets a running promise of its own.
            // The old one is ready already, so dropping it breaks nothing.
            runningPromise_ = boost::promise<void>();
            runningFuture_ = runningPromise_.get_future().share();
        }
        if (cancelled_) {
            return;
        }
        setState(FutureState::Queued);
    }
    detail::timeline::onQueued(this);
}

void TaskBase::doNotifyRunning() {
    QZ_FUTURE_TRACE(logger());
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (cancelled_) {
            return;
        }
        setStartTime();
        setState(FutureState::Running);
        runningPromise_.set_value();
    }
    detail::timeline::onRunning(this);
}

void TaskBase::doNotifyFinished() {
    QZ_FUTURE_TRACE(logger());
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (!cancelled_) {
            setFinishTime();
            setState(FutureState::Finished);
        }
    }
    detail::timeline::onFinished(this);
    finishedPromise_.setOne();
    detail::notifyTaskFinished();
}

void TaskBase::doNotifyCancelled() {
    QZ_FUTURE_TRACE(logger());
    {
        foundation::core::sync::LockGuard lock(mutex_);
        setFinishTime();
        setState(FutureState::Finished);
        cancelled_ = true;
    }
    detail::timeline::onCancelled(this);
    finishedPromise_.setOne();
}

void TaskBase::setState(FutureState state) {
    state_ = state;
}
void TaskBase::setStartTime() {
    startTime_ = clock::getCurrentTime();
}
void TaskBase::setFinishTime() {
    finishTime_ = clock::getCurrentTime();
}

} // namespace parallel::language::future
