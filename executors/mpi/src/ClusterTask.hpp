#pragma once

// One evaluation of the cluster pool, on the client (rank 0): the encoded
// message that goes to a worker, and what came back.
//
// States (TaskBase): Pending and Queued at submission; Running when its
// worker reports the start; Finished when the result arrives, or Cancelled.
//
// Ownership: held through std::shared_ptr by the work list while waiting or
// on a worker, and by its future for as long as the future lives. It reaches
// the work list only weakly, so it may outlive the pool.
//
// Threads: the submitting thread marks Pending and Queued; the link thread
// takes the payload, marks Running and Finished and stores the result; any
// thread cancels and reads.

#include "Codec.hpp"

#include <parallel/language/future/TaskBase.hpp>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace mpipool {

class WorkList;

class ClusterTask final : public parallel::language::future::TaskBase {
public:
    // A task with a `pinnedWorker` is run by that worker of the pool only.
    ClusterTask(codec::TaskId id, protocol::Bytes payload, std::weak_ptr<WorkList> work,
                std::optional<std::size_t> pinnedWorker = std::nullopt);

    codec::TaskId getId() const noexcept { return id_; }
    std::optional<std::size_t> getPinnedWorker() const noexcept { return pinnedWorker_; }

    void markPending() { doNotifyPending(); }
    void markQueued() { doNotifyQueued(); }
    void markRunning() { doNotifyRunning(); }
    void markFinished() { doNotifyFinished(); }

    // The message for the worker, handed out once. Link thread.
    protocol::Bytes takePayload() noexcept;
    // Keeps what the worker sent back. Link thread, before markFinished.
    void setResult(parallel::language::future::OutputsOrError result, std::u16string diary);

private:
    // Takes the task off the work list if it still waits (it is then never
    // sent), or asks its worker to stop it.
    void doCancel() override;
    parallel::language::future::OutputsOrError doGetOutputsOrError() override;
    std::u16string doGetDiary() override;

    const codec::TaskId id_;
    protocol::Bytes payload_; // released once sent
    std::weak_ptr<WorkList> work_;
    const std::optional<std::size_t> pinnedWorker_;

    std::mutex resultMutex_; // guards result_ and diary_
    parallel::language::future::OutputsOrError result_{
        std::optional<parallel::language::future::DvArrayVector>()};
    std::u16string diary_;
};

} // namespace mpipool
