#include <parallel/language/future/MultiTask.hpp>
#include <parallel/language/future/VectorMultiTask.hpp>

#include <stdexcept>

namespace parallel::language::future {

MultiTask::~MultiTask() = default;

VectorMultiTask::VectorMultiTask(std::vector<std::shared_ptr<TaskBase>> tasks)
    : tasks_(std::move(tasks)) {}

VectorMultiTask::~VectorMultiTask() = default;

unsigned long long VectorMultiTask::maybeResizeAndGetNumTasks() {
    return tasks_.size();
}

std::shared_ptr<TaskBase> VectorMultiTask::getTask(unsigned long long i) const {
    if (i >= tasks_.size()) {
        throw std::out_of_range("invalid vector subscript");
    }
    return tasks_[i];
}

} // namespace parallel::language::future
