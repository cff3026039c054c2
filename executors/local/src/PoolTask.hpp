#pragma once

// One evaluation of the local pool: a function, its number of outputs and
// the worker's own copies of the inputs. The rest (notifications, result,
// diary, stop flag, pinned worker) is the WorkerTask's.

#include <executor/WorkerTask.hpp>

#include <matrix/dvArray.hpp>

namespace localpool {

using executor::DvArrayVector;

class PoolTask final : public executor::WorkerTask {
public:
    // Takes shared copies of `inputs` (null entries stay null).
    PoolTask(boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
             const DvArrayVector& inputs, std::weak_ptr<executor::WaitingTasks> queue,
             std::optional<std::size_t> pinnedWorker);

    // Calls the function and keeps its outputs or error and what it printed.
    // Releases the function and the inputs afterwards. Worker thread, once.
    void run() noexcept;

private:
    // Set at construction, then read and released by the worker only.
    boost::intrusive_ptr<dvArray> function_;
    unsigned int numOutputs_;
    DvArrayVector inputs_;
};

} // namespace localpool
