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

namespace mpipool {

class ClusterTask final : public executor::WorkerTask {
public:
    ClusterTask(codec::TaskId id, boost::intrusive_ptr<dvArray> function, unsigned int numOutputs,
                codec::DvArrayVector inputs, std::weak_ptr<executor::WaitingTasks> work,
                std::optional<std::size_t> pinnedWorker)
        : WorkerTask(std::move(work), pinnedWorker), id_(id), function_(std::move(function)),
          numOutputs_(numOutputs), inputs_(std::move(inputs)) {}

    codec::TaskId getId() const noexcept { return id_; }

    // The message for a worker. Throws what the codec throws. Link thread.
    protocol::Bytes encode() const {
        return codec::encodeTask(id_, function_.get(), numOutputs_, inputs_);
    }

private:
    const codec::TaskId id_;
    const boost::intrusive_ptr<dvArray> function_;
    const unsigned int numOutputs_;
    const codec::DvArrayVector inputs_; // shared with the future: arrays are not copied
};

} // namespace mpipool
