#pragma once

// One evaluation of the cluster pool, on the client (rank 0): the encoded
// message that goes to a worker. The rest (notifications, result, diary,
// pinned worker) is the WorkerTask's.
//
// States (TaskBase): Pending and Queued at submission; Running when its
// worker reports the start; Finished when the result arrives, or Cancelled.
//
// Threads: the link thread takes the payload; the rest as for WorkerTask.

#include "Codec.hpp"

#include <executor/WorkerTask.hpp>

namespace mpipool {

class ClusterTask final : public executor::WorkerTask {
public:
    ClusterTask(codec::TaskId id, protocol::Bytes payload,
                std::weak_ptr<executor::WaitingTasks> work, std::optional<std::size_t> pinnedWorker)
        : WorkerTask(std::move(work), pinnedWorker), id_(id), payload_(std::move(payload)) {}

    codec::TaskId getId() const noexcept { return id_; }

    // The message for the worker, handed out once. Link thread.
    protocol::Bytes takePayload() noexcept { return std::move(payload_); }

private:
    const codec::TaskId id_;
    protocol::Bytes payload_; // released once sent
};

} // namespace mpipool
