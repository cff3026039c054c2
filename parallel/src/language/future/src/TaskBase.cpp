#include <parallel/language/future/TaskBase.hpp>

#include <parallel/language/future/FutureErrors.hpp>

#include "DiagnosticLogging.hpp"
#include "TaskFinishedListeners.hpp"
#include "TimelineEvents.hpp"
#include "WaitUntil.hpp"

#include <boost/exception/diagnostic_information.hpp>

#include <atomic>

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

// Serials are handed to each thread in blocks, so that making a task shares
// no memory with other threads but once a block.
constexpr std::uint64_t kSerialsPerBlock = 1024;
std::atomic<std::uint64_t> gNextSerialBlock{0};

std::uint64_t nextSerial() noexcept {
    thread_local std::uint64_t next = 0;
    thread_local std::uint64_t end = 0;
    if (next == end) {
        next = gNextSerialBlock.fetch_add(1, std::memory_order_relaxed) * kSerialsPerBlock;
        end = next + kSerialsPerBlock;
    }
    return next++;
}

void runDroppingErrors(const std::function<void()>& callback) noexcept {
    try {
        callback();
    } catch (...) {
    }
}

} // namespace

TaskBase::TaskBase() : serial_(nextSerial()) {}

TaskBase::~TaskBase() {
    // No other thread can reach a task being destroyed: no lock needed, and
    // none held while the callbacks run.
    Callbacks finished;
    Callbacks running;
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (waiters_) {
            finished.swap(waiters_->finished);
            running.swap(waiters_->running);
        }
    }
    runAll(finished);
    runAll(running);
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
    QZ_FUTURE_TRACE_OF(logger(), "task", serial_);
    if (target <= getState()) {
        logging::writeMessage(logger(), logging::kMessage, "Early return from wait.");
        return true;
    }
    if (target == FutureState::Running) {
        boost::shared_future<void> running;
        {
            foundation::core::sync::LockGuard lock(mutex_);
            running = futureOf(waiters().runningPromise, running_);
        }
        return detail::waitUntil(running, deadline);
    }
    try {
        return detail::waitUntil(getWaitableFuture(), deadline);
    } catch (const boost::future_uninitialized&) {
        throw errors::WaitOnUnavailableFuture();
    } catch (...) {
        throw errors::UnknownWaitErrors();
    }
}

void TaskBase::afterRunningThen(boost::launch policy, std::function<void()> callback) {
    if (policy != boost::launch::sync) {
        boost::shared_future<void> running;
        {
            foundation::core::sync::LockGuard lock(mutex_);
            running = futureOf(waiters().runningPromise, running_);
        }
        attach(std::move(running), policy, std::move(callback));
        return;
    }
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (!running_) {
            waiters().running.push_back(std::move(callback));
            return;
        }
    }
    runDroppingErrors(callback); // running already: at once, without the mutex
}

void TaskBase::afterFinishThen(boost::launch policy, std::function<void()> callback) {
    doAfterFinishThen(policy, std::move(callback));
}

void TaskBase::doAfterFinishThen(boost::launch policy, std::function<void()> callback) {
    if (policy != boost::launch::sync) {
        attach(getWaitableFuture(), policy, std::move(callback));
        return;
    }
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (!finished_) {
            waiters().finished.push_back(std::move(callback));
            return;
        }
    }
    runDroppingErrors(callback);
}

FutureState TaskBase::getState() const noexcept {
    QZ_FUTURE_TRACE_OF(logger(), "task", serial_);
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
    QZ_FUTURE_TRACE_OF(logger(), "task", serial_);
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
    foundation::core::sync::LockGuard lock(mutex_);
    return futureOf(waiters().finishedPromise, finished_);
}

void TaskBase::doNotifyPending() {
    QZ_FUTURE_TRACE_OF(logger(), "task", serial_);
    foundation::core::sync::LockGuard lock(mutex_);
    if (!cancelled_) {
        setState(FutureState::Pending);
    }
}

void TaskBase::doNotifyQueued() {
    QZ_FUTURE_TRACE_OF(logger(), "task", serial_);
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (state_ == FutureState::Running) {
            // Back to a queue: the next run gets a running promise of its own.
            // The old one is ready already, so dropping it breaks nothing.
            running_ = false;
            if (waiters_) {
                waiters_->runningPromise.reset();
            }
        }
        if (cancelled_) {
            return;
        }
        setState(FutureState::Queued);
    }
    detail::timeline::onQueued(this);
}

void TaskBase::doNotifyPendingAndQueued() {
    QZ_FUTURE_TRACE_OF(logger(), "task", serial_);
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (cancelled_) {
            return;
        }
        setState(FutureState::Queued);
    }
    detail::timeline::onQueued(this);
}

void TaskBase::doNotifyRunning() {
    QZ_FUTURE_TRACE_OF(logger(), "task", serial_);
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (cancelled_) {
            return;
        }
        setStartTime();
        setState(FutureState::Running);
        if (running_) {
            throw boost::promise_already_satisfied();
        }
        running_ = true;
        if (waiters_) {
            Callbacks callbacks;
            callbacks.swap(waiters_->running);
            runAll(callbacks);
            if (waiters_->runningPromise) {
                waiters_->runningPromise->promise.set_value();
            }
        }
    }
    detail::timeline::onRunning(this);
}

void TaskBase::doNotifyFinished() {
    QZ_FUTURE_TRACE_OF(logger(), "task", serial_);
    // Recorded before the state changes, so that whatever the finish lets
    // happen is recorded after it.
    detail::timeline::onFinished(this);
    FinishedWaiters waiters;
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (!cancelled_) {
            setFinishTime();
            setState(FutureState::Finished);
        }
        waiters = takeFinishedWaiters();
    }
    waiters.release();
    detail::notifyTaskFinished();
}

void TaskBase::doNotifyCancelled() {
    QZ_FUTURE_TRACE_OF(logger(), "task", serial_);
    {
        foundation::core::sync::LockGuard lock(mutex_);
        setFinishTime();
        setState(FutureState::Finished);
        cancelled_ = true;
    }
    detail::timeline::onCancelled(this);
    reachFinished();
}

void TaskBase::reachFinished() {
    FinishedWaiters waiters;
    {
        foundation::core::sync::LockGuard lock(mutex_);
        waiters = takeFinishedWaiters();
    }
    waiters.release();
}

TaskBase::FinishedWaiters TaskBase::takeFinishedWaiters() {
    FinishedWaiters taken;
    if (finished_) {
        return taken;
    }
    finished_ = true;
    if (waiters_) {
        taken.callbacks.swap(waiters_->finished);
        // Made before finished_ was set and never replaced: safe to use
        // without the mutex, which its continuations must not run under.
        taken.promise = waiters_->finishedPromise.get();
    }
    return taken;
}

void TaskBase::FinishedWaiters::release() {
    runAll(callbacks);
    if (promise != nullptr) {
        promise->promise.set_value();
    }
}

boost::shared_future<void> TaskBase::futureOf(std::unique_ptr<LazyPromise>& slot, bool reached) {
    if (!slot) {
        slot = std::make_unique<LazyPromise>();
        if (reached) {
            slot->promise.set_value();
        }
    }
    return slot->future;
}

TaskBase::Waiters& TaskBase::waiters() const {
    if (!waiters_) {
        waiters_ = std::make_unique<Waiters>();
    }
    return *waiters_;
}

void TaskBase::runAll(Callbacks& callbacks) noexcept {
    for (const auto& callback : callbacks) {
        runDroppingErrors(callback);
    }
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
