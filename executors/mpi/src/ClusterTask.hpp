#pragma once

// One evaluation of the cluster pool, on the client (rank 0): what to send
// to a worker, encoded when it is sent. The rest (notifications, result,
// diary, pinned worker) is the WorkerTask's.
//
// States (TaskBase): Pending and Queued at submission; Running when its
// worker reports the start; Finished when the result arrives, when it is
// cancelled before it started, or when its worker is lost.
//
// Threads: the link thread encodes; the rest as for WorkerTask.

#include "Codec.hpp"

#include <executor/WorkerTask.hpp>

#include <boost/container/small_vector.hpp>

namespace mpipool {

class ClusterTask final : public executor::WorkerTask {
public:
    // Keeps `inputs`, the future's copies (see executor::submitTo), and only
    // reads them.
    ClusterTask(codec::TaskId id, boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                const codec::DvArrayVector& inputs, std::weak_ptr<executor::WaitingTasks> work,
                std::optional<std::size_t> pinnedWorker)
        : WorkerTask(std::move(work), pinnedWorker), id_(id), function_(std::move(function)),
          numOutputs_(numOutputs), inputs_(inputs.begin(), inputs.end()) {}

    codec::TaskId getId() const noexcept { return id_; }

    // The message for a worker. Throws what the codec throws. Link thread.
    protocol::Bytes encode() const {
        return codec::encodeTask(id_, function_.get(), numOutputs_, inputs_);
    }

private:
    const codec::TaskId id_;
    const boost::intrusive_ptr<dvArray> function_;
    const unsigned int numOutputs_;
    // Shared with the future: arrays are not copied. Room for one input in
    // place, as most evaluations have.
    const boost::container::small_vector<boost::intrusive_ptr<dvArray>, 1> inputs_;
};

} // namespace mpipool
