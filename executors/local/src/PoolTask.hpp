#pragma once

// One evaluation of the local pool: a function, its number of outputs and
// its inputs, which the worker copies for the function when it runs it. The
// rest (notifications, result, diary, stop flag, pinned worker) is the
// WorkerTask's.

#include <executor/WorkerTask.hpp>

#include <matrix/dvArray.hpp>

#include <boost/container/small_vector.hpp>

namespace localpool {

using executor::DvArrayVector;

class PoolTask final : public executor::WorkerTask {
public:
    // Keeps `inputs`, the future's copies (see executor::submitTo), and only
    // reads them.
    PoolTask(boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
             const DvArrayVector& inputs, std::weak_ptr<executor::WaitingTasks> queue,
             std::optional<std::size_t> pinnedWorker);

    // Calls the function on copies of the inputs of its own, and keeps its
    // outputs or error and what it printed. Worker thread, once.
    void run() noexcept;

private:
    // Set at construction, then read by the worker only. The function and
    // the inputs are kept until the task goes, as its future keeps them: the
    // worker leaves their counts alone (every submission of a function
    // shares its handle). Room for one input in place, as most evaluations
    // have.
    const boost::intrusive_ptr<dvArray> function_;
    const unsigned int numOutputs_;
    const boost::container::small_vector<boost::intrusive_ptr<dvArray>, 1> inputs_;
};

} // namespace localpool
