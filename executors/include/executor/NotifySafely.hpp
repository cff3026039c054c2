#pragma once

#include <boost/exception/diagnostic_information.hpp>

#include <iostream>

namespace executor {

// Runs one notification of a task (`notification`, named `name`) on a pool's
// own thread. A failure there, say a task-finished listener that throws, is
// the notifier's problem, not the pool's: it is reported on standard error,
// prefixed with `pool`, and the thread carries on.
template <class Notification>
void notifySafely(const char* pool, const char* name, Notification notification) noexcept {
    try {
        notification();
    } catch (...) {
        std::cerr << pool << ": the " << name << " notification of a task failed: "
                  << boost::current_exception_diagnostic_information() << std::endl;
    }
}

} // namespace executor
