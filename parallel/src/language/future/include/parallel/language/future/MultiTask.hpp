#pragma once

#include <parallel/language/future/Export.hpp>
#include <parallel/language/future/TaskBase.hpp>

#include <memory>

namespace parallel::language::future {

// The tasks of a multi-task future, asked afresh by every operation: an
// implementation may bring its collection up to date in
// maybeResizeAndGetNumTasks, so the count may change between calls. Callers
// rely on getTask(i) for every i below a count they obtained earlier.
class QZ_FUTURE_API MultiTask {
public:
    MultiTask() = default;
    MultiTask(const MultiTask&) = default;
    MultiTask& operator=(const MultiTask&) = default;

    virtual unsigned long long maybeResizeAndGetNumTasks() = 0;
    virtual std::shared_ptr<TaskBase> getTask(unsigned long long i) const = 0;
    virtual ~MultiTask();
};

} // namespace parallel::language::future
