#pragma once

#include <parallel/language/future/Export.hpp>

namespace parallel::language::future {

// Told that some task has finished (which one, it must find out itself).
// Called on the finishing task's thread, with no lock of the task or of the
// listener registry held: implementations only signal, never wait.
class QZ_FUTURE_API TaskFinishedListener {
public:
    virtual void onTaskFinished() = 0;
    virtual ~TaskFinishedListener();
};

} // namespace parallel::language::future
