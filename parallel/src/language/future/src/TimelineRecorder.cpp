#include <parallel/language/future/TimelineRecorder.hpp>

#include <parallel/language/future/FutureBase.hpp>
#include <parallel/language/future/MultiTask.hpp>
#include <parallel/language/future/TaskBase.hpp>

#include "TimelineEvents.hpp"

#include <foundation/core/sync/Mutex.hpp>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <vector>

namespace parallel::language::future {

namespace {

using Clock = std::chrono::steady_clock;

// The lane name given by nameThisThread; empty for an unnamed thread.
thread_local std::string tThreadName;

// Writes `text` to `file`, or throws naming the file.
void writeFile(const std::filesystem::path& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        throw std::runtime_error("Could not write the timeline to " + file.string() + ".");
    }
}

} // namespace

namespace detail::timeline {

// What a recorder has recorded. Guarded by gMutex (below), through which
// events reach it while it is gActive.
struct Recording {
    Clock::time_point start = Clock::now();
    std::vector<TimelineEntry> entries;
    // Tasks alive and seen, to their entry. Erased when the task dies.
    std::unordered_map<const TaskBase*, std::size_t> entryOfTask;
    // Unnamed threads, to their "thread N" lane.
    std::unordered_map<std::thread::id, std::string> unnamedLanes;

    double sinceStart(Clock::time_point at) const {
        return std::chrono::duration<double, std::micro>(at - start).count();
    }

    TimelineEntry& entryOf(const TaskBase* task) {
        const auto [found, added] = entryOfTask.try_emplace(task, entries.size());
        if (added) {
            entries.emplace_back();
        }
        return entries[found->second];
    }

    std::string laneOfThisThread() {
        if (!tThreadName.empty()) {
            return tThreadName;
        }
        const auto [found, added] = unnamedLanes.try_emplace(std::this_thread::get_id());
        if (added) {
            found->second = "thread " + std::to_string(unnamedLanes.size());
        }
        return found->second;
    }
};

std::atomic<bool> gRecording{false};

namespace {

foundation::core::sync::Mutex gMutex;
// The recording of the recorder that is recording; null while none is.
Recording* gActive QZ_GUARDED_BY(gMutex) QZ_PT_GUARDED_BY(gMutex) = nullptr;

// Runs `update(recording, now)` on the active recording, if any, under gMutex.
// `now` is read before the lock so that waiting for it does not shift the
// event. An exception (out of memory) loses the event, never the caller's
// notification.
template <class Update>
void record(Update update) noexcept QZ_EXCLUDES(gMutex) {
    const Clock::time_point now = Clock::now();
    try {
        foundation::core::sync::LockGuard lock(gMutex);
        if (gActive != nullptr) {
            update(*gActive, gActive->sinceStart(now));
        }
    } catch (...) {
    }
}

std::string functionNameOf(const FutureBase& future) {
    const boost::intrusive_ptr<dvArray> function = future.getFunction();
    if (!function || dvGetClassID(function.get()) != matrix::ClassID::FunctionHandle) {
        return {};
    }
    return dvGetFunctionHandleName(function.get());
}

} // namespace

namespace {

// Records `tasks` as the tasks of `future`, made now: the function's name
// read once, all under one lock.
void recordTasksOfFuture(const std::vector<const TaskBase*>& tasks, const FutureBase& future,
                         const char* kind) noexcept {
    std::string function;
    try {
        function = functionNameOf(future);
    } catch (...) {
    }
    record([&](Recording& recording, double now) {
        for (const TaskBase* task : tasks) {
            TimelineEntry& entry = recording.entryOf(task);
            entry.futureId = future.getID();
            entry.futureKind = kind;
            entry.function = function;
            entry.createdUs = now;
        }
    });
}

} // namespace

void recordFutureCreated(const TaskBase* task, const FutureBase& future,
                         const char* kind) noexcept {
    try {
        recordTasksOfFuture({task}, future, kind);
    } catch (...) {
    }
}

void recordFutureCreated(const MultiTask& tasks, unsigned long long count, const FutureBase& future,
                         const char* kind) noexcept {
    try {
        std::vector<const TaskBase*> alive;
        for (unsigned long long i = 0; i < count; ++i) {
            if (const std::shared_ptr<TaskBase> task = tasks.getTask(i)) {
                alive.push_back(task.get()); // the future holds its tasks
            }
        }
        recordTasksOfFuture(alive, future, kind);
    } catch (...) {
    }
}

void recordQueued(const TaskBase* task) noexcept {
    record([&](Recording& recording, double now) { recording.entryOf(task).queuedUs = now; });
}

void recordRunning(const TaskBase* task) noexcept {
    record([&](Recording& recording, double now) {
        TimelineEntry& entry = recording.entryOf(task);
        entry.startedUs = now;
        entry.worker = recording.laneOfThisThread();
    });
}

void recordFinished(const TaskBase* task) noexcept {
    record([&](Recording& recording, double now) {
        TimelineEntry& entry = recording.entryOf(task);
        entry.finishedUs = now;
        if (entry.outcome == TimelineEntry::Outcome::Unfinished) {
            entry.outcome = TimelineEntry::Outcome::Completed;
        }
    });
}

void recordFailed(const TaskBase* task) noexcept {
    record([&](Recording& recording, double) {
        TimelineEntry& entry = recording.entryOf(task);
        if (entry.outcome != TimelineEntry::Outcome::Cancelled) {
            entry.outcome = TimelineEntry::Outcome::Failed;
        }
    });
}

void recordCancelled(const TaskBase* task) noexcept {
    record([&](Recording& recording, double now) {
        TimelineEntry& entry = recording.entryOf(task);
        if (entry.cancelledUs < 0.0) {
            entry.cancelledUs = now;
        }
        if (entry.outcome == TimelineEntry::Outcome::Unfinished) {
            entry.outcome = TimelineEntry::Outcome::Cancelled;
        }
    });
}

void recordDestroyed(const TaskBase* task) noexcept {
    record([&](Recording& recording, double) { recording.entryOfTask.erase(task); });
}

} // namespace detail::timeline

struct TimelineRecorder::Impl {
    detail::timeline::Recording recording QZ_GUARDED_BY(detail::timeline::gMutex);
};

TimelineRecorder::TimelineRecorder() : impl_(std::make_unique<Impl>()) {
    foundation::core::sync::LockGuard lock(detail::timeline::gMutex);
    if (detail::timeline::gActive != nullptr) {
        throw std::logic_error("Another timeline recorder is recording.");
    }
    detail::timeline::gActive = &impl_->recording;
    detail::timeline::gRecording.store(true, std::memory_order_relaxed);
}

TimelineRecorder::~TimelineRecorder() {
    foundation::core::sync::LockGuard lock(detail::timeline::gMutex);
    detail::timeline::gRecording.store(false, std::memory_order_relaxed);
    detail::timeline::gActive = nullptr;
}

std::vector<TimelineEntry> TimelineRecorder::entries() const {
    foundation::core::sync::LockGuard lock(detail::timeline::gMutex);
    return impl_->recording.entries;
}

void TimelineRecorder::writeTraceEvents(const std::filesystem::path& file) const {
    writeFile(file, toTraceEventJson(entries()));
}

void TimelineRecorder::writeSvg(const std::filesystem::path& file) const {
    writeFile(file, toSvg(entries()));
}

void TimelineRecorder::recordFailure(const TaskBase& task) noexcept {
    detail::timeline::onFailed(&task);
}

void TimelineRecorder::nameThisThread(std::string name) {
    tThreadName = std::move(name);
}

} // namespace parallel::language::future
