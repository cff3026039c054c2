#pragma once

namespace parallel::language::future::detail {

// Calls onTaskFinished() of every registered listener, in registration order,
// on the calling thread and without the registry lock. A listener's exception
// ends the pass and propagates. Any thread.
void notifyTaskFinished();

} // namespace parallel::language::future::detail
