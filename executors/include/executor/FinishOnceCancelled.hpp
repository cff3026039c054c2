#pragma once

// For an executor's tasks that no worker will finish once cancelled.
// TaskBase::cancel notifies Cancelled after doCancel, and Cancelled does not
// tell the task-finished listeners: only Finished does, and a fetchNext
// asleep on the interpreter thread wakes on nothing else. A task that no
// worker will finish therefore has to be notified Finished by its executor.

#include <boost/thread/future.hpp>

#include <memory>

namespace executor {

// Notifies Finished (`task.markFinished()`) right after the cancel in
// progress has made `task` Finished, on the cancelling thread. Call it from
// the task's doCancel. `Task` derives from TaskBase and is owned by a
// std::shared_ptr.
template <class Task>
void finishOnceCancelled(Task& task) {
    task.afterFinishThen(
        boost::launch::sync,
        [weak = std::weak_ptr<Task>(std::static_pointer_cast<Task>(task.shared_from_this()))] {
            if (const auto self = weak.lock()) {
                self->markFinished();
            }
        });
}

// Cancels `task`, which no worker will run or finish, and notifies Finished
// for it as a worker would. Any thread.
template <class Task>
void cancelUnrun(Task& task) {
    task.cancel();
    task.markFinished();
}

} // namespace executor
