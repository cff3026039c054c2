#include "MultiTaskFolding.hpp"
#include "WaitUntil.hpp"

#include <parallel/language/future/MultiEventPromise.hpp>

#include <algorithm>
#include <limits>
#include <vector>

namespace parallel::language::future::detail {

namespace {

// Orders wall-clock times with "not set" (0) above every real time.
double sortKey(const WallClockTimePoint& time) {
    const double seconds = time.time_since_epoch().count();
    return seconds == 0.0 ? std::numeric_limits<double>::max() : seconds;
}

template <class Visit>
void forEachTask(MultiTask& tasks, Visit&& visit) {
    const unsigned long long count = tasks.maybeResizeAndGetNumTasks();
    for (unsigned long long i = 0; i < count; ++i) {
        visit(i, *tasks.getTask(i));
    }
}

// The time of the tasks that `prefer` ranks first by sort key.
template <class Get, class Prefer>
WallClockTimePoint foldTime(MultiTask& tasks, Get get, Prefer prefer) {
    WallClockTimePoint folded{};
    forEachTask(tasks, [&](unsigned long long i, TaskBase& task) {
        const WallClockTimePoint time = (task.*get)();
        if (i == 0 || prefer(sortKey(time), sortKey(folded))) {
            folded = time;
        }
    });
    return folded;
}

// Ready once any task runs (at once when there are none).
boost::shared_future<void> makeAnyRunningFuture(MultiTask& tasks) {
    const unsigned long long count = tasks.maybeResizeAndGetNumTasks();
    auto anyRunning = std::make_shared<MultiEventPromise>(MultiEventPromise::Any, count);
    for (unsigned long long i = 0; i < count; ++i) {
        // Boost runs this in the notifying thread with the task mutex held.
        tasks.getTask(i)->afterRunningThen(boost::launch::sync,
                                           [anyRunning] { anyRunning->setOne(); });
    }
    return anyRunning->getFuture().share();
}

} // namespace

FutureState foldState(MultiTask& tasks) {
    std::vector<FutureState> states;
    forEachTask(tasks,
                [&](unsigned long long, TaskBase& task) { states.push_back(task.getState()); });
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

WallClockTimePoint foldStartTime(MultiTask& tasks) {
    return foldTime(tasks, &TaskBase::getStartTime, std::less<>());
}

WallClockTimePoint foldFinishTime(MultiTask& tasks) {
    return foldTime(tasks, &TaskBase::getFinishTime, std::greater<>());
}

PerTaskVariant<std::u16string> diariesOf(MultiTask& tasks) {
    std::vector<std::u16string> diaries;
    forEachTask(tasks,
                [&](unsigned long long, TaskBase& task) { diaries.push_back(task.getDiary()); });
    return PerTaskVariant<std::u16string>(std::move(diaries));
}

PerTaskVariant<OutputsOrError> outputsOrErrorsOf(MultiTask& tasks) {
    std::vector<OutputsOrError> results;
    forEachTask(tasks, [&](unsigned long long, TaskBase& task) {
        results.push_back(task.getOutputsOrError());
    });
    return PerTaskVariant<OutputsOrError>(std::move(results));
}

void cancelEach(MultiTask& tasks) {
    forEachTask(tasks, [](unsigned long long, TaskBase& task) { task.cancel(); });
}

bool waitForEachFinished(MultiTask& tasks, const SteadyTimePoint& deadline) {
    const unsigned long long count = tasks.maybeResizeAndGetNumTasks();
    for (unsigned long long i = 0; i < count; ++i) {
        if (!tasks.getTask(i)->wait(FutureState::Finished, deadline)) {
            return false;
        }
    }
    return true;
}

bool AnyTaskRunning::waitUntil(MultiTask& tasks, const SteadyTimePoint& deadline) {
    boost::shared_future<void> future;
    {
        foundation::core::sync::LockGuard lock(mutex_);
        if (!running_.valid()) {
            running_ = makeAnyRunningFuture(tasks);
        }
        future = running_;
    }
    return detail::waitUntil(future, deadline);
}

void afterAllFinishedThen(MultiTask& tasks, boost::launch policy, std::function<void()> callback) {
    const unsigned long long count = tasks.maybeResizeAndGetNumTasks();
    auto allFinished = std::make_shared<MultiEventPromise>(MultiEventPromise::All, count);
    for (unsigned long long i = 0; i < count; ++i) {
        tasks.getTask(i)->afterFinishThen(boost::launch::sync,
                                          [allFinished] { allFinished->setOne(); });
    }
    allFinished->getFuture().then(
        policy, [callback = std::move(callback)](boost::future<void>) { callback(); });
}

} // namespace parallel::language::future::detail
