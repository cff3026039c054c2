#pragma once

#include <atomic>

namespace parallel::language::future {
class FutureBase;
class MultiTask;
class TaskBase;
} // namespace parallel::language::future

// The hooks through which tasks and futures report to the timeline recorder.
// Each inline `on...` costs one relaxed load while nothing records; the
// `record...` functions append to the calling thread's own log. Any thread; never called
// with a task's mutex held.
namespace parallel::language::future::detail::timeline {

// True while a recorder exists. Relaxed: an event racing with the start or
// end of a recording may or may not be recorded.
extern std::atomic<bool> gRecording;

inline bool recording() noexcept {
    return gRecording.load(std::memory_order_relaxed);
}

// `kind` is a string literal.
void recordFutureCreated(const TaskBase* task, const FutureBase& future, const char* kind) noexcept;
// For tasks 0 .. count-1 of `tasks`.
void recordFutureCreated(const MultiTask& tasks, unsigned long long count, const FutureBase& future,
                         const char* kind) noexcept;
void recordQueued(const TaskBase* task) noexcept;
void recordRunning(const TaskBase* task) noexcept;
// A finished task counts as completed unless its failure is recorded, before
// or after: by its executor, or when its error is handed out.
void recordFinished(const TaskBase* task) noexcept;
void recordFailed(const TaskBase* task) noexcept;
void recordCancelled(const TaskBase* task) noexcept;

inline void onFutureCreated(const TaskBase* task, const FutureBase& future,
                            const char* kind) noexcept {
    if (recording() && task != nullptr) {
        recordFutureCreated(task, future, kind);
    }
}
inline void onFutureCreated(const MultiTask& tasks, unsigned long long count,
                            const FutureBase& future, const char* kind) noexcept {
    if (recording()) {
        recordFutureCreated(tasks, count, future, kind);
    }
}
inline void onQueued(const TaskBase* task) noexcept {
    if (recording()) {
        recordQueued(task);
    }
}
inline void onRunning(const TaskBase* task) noexcept {
    if (recording()) {
        recordRunning(task);
    }
}
inline void onFinished(const TaskBase* task) noexcept {
    if (recording()) {
        recordFinished(task);
    }
}
inline void onFailed(const TaskBase* task) noexcept {
    if (recording()) {
        recordFailed(task);
    }
}
inline void onCancelled(const TaskBase* task) noexcept {
    if (recording()) {
        recordCancelled(task);
    }
}

} // namespace parallel::language::future::detail::timeline
