#pragma once

#include <parallel/language/future/Export.hpp>
#include <parallel/language/future/TaskFinishedListener.hpp>

#include <memory>

namespace parallel::language::future {

// Keeps a listener in the process-wide task-finished registry for the
// lifetime of this object: every doNotifyFinished of any task calls it. The
// registry holds its own reference while registered, and a notification pass
// holds one while it calls the listener, so a listener unregistered during a
// pass may still be called once in that pass. Any thread.
class QZ_FUTURE_API ScopedTaskFinishedListener {
public:
    // Throws std::invalid_argument for a null listener.
    explicit ScopedTaskFinishedListener(std::shared_ptr<TaskFinishedListener>&& listener);
    ~ScopedTaskFinishedListener();
    ScopedTaskFinishedListener(const ScopedTaskFinishedListener&) = delete;
    ScopedTaskFinishedListener& operator=(const ScopedTaskFinishedListener&) = delete;

private:
    std::shared_ptr<TaskFinishedListener> listener_;
};

} // namespace parallel::language::future
