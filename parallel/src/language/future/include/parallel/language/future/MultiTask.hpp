#pragma once

#include <parallel/language/future/Export.hpp>
#include <parallel/language/future/TaskBase.hpp>
#include <parallel/language/future/TimeTypes.hpp>

#include <foundation/core/sync/Mutex.hpp>

#include <boost/thread/future.hpp>

#include <memory>

namespace parallel::language::future {

// The tasks of a multi-task future, asked afresh by every operation: an
// implementation may bring its collection up to date in
// maybeResizeAndGetNumTasks, so the count may change between calls. Callers
// rely on getTask(i) for every i below a count they obtained earlier.
//
// Ownership: held through std::shared_ptr by its futures; the tasks it hands
// out are shared with their executor.
//
// Threads: any thread; a future may ask from several threads at once (its
// waits), so an implementation must allow concurrent calls.
class QZ_FUTURE_API MultiTask {
public:
    MultiTask() = default;
    MultiTask(const MultiTask&) = default;
    MultiTask& operator=(const MultiTask&) = default;

    virtual unsigned long long maybeResizeAndGetNumTasks() = 0;
    virtual std::shared_ptr<TaskBase> getTask(unsigned long long i) const = 0;
    virtual ~MultiTask();
};

namespace detail {

// How a future over several tasks waits for the first of them to run. The
// future it waits on is made by the first wait and shared by later ones, so
// that concurrent waits on one future are safe. Any thread.
class AnyTaskRunning {
public:
    // Waits until any task of `tasks` runs or `deadline` passes; true when
    // one runs.
    bool waitUntil(MultiTask& tasks, const SteadyTimePoint& deadline) QZ_EXCLUDES(mutex_);

private:
    foundation::core::sync::Mutex mutex_;
    boost::shared_future<void> running_ QZ_GUARDED_BY(mutex_); // made on first use
};

} // namespace detail

} // namespace parallel::language::future
