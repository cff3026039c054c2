#pragma once

#include <parallel/language/future/MultiTask.hpp>

#include <vector>

namespace parallel::language::future {

// A fixed collection of tasks, in task order, each held strongly. Immutable
// after construction: any number of threads may use it at once.
class QZ_FUTURE_API VectorMultiTask : public MultiTask {
public:
    explicit VectorMultiTask(std::vector<std::shared_ptr<TaskBase>> tasks);
    VectorMultiTask(const VectorMultiTask&) = default;
    ~VectorMultiTask() override;

    // The number of tasks; it never changes.
    unsigned long long maybeResizeAndGetNumTasks() override;
    // Task i; std::out_of_range "invalid vector subscript" past the end.
    std::shared_ptr<TaskBase> getTask(unsigned long long i) const override;

private:
    std::vector<std::shared_ptr<TaskBase>> tasks_;
};

} // namespace parallel::language::future
