#pragma once

// A worker's side of the cluster: two threads.
//
//   the I/O thread owns the worker's MPI and its control socket. It sleeps
//   in poll() on both until the client writes a frame or the main thread
//   has reports to send; it receives the batches of tasks, queues them,
//   passes stop requests on at once, and sends the main thread's reports in
//   batches: at once when the queue runs dry, else when kReportDelay has
//   passed since the oldest one (a long evaluation never holds back the
//   results before it), or when a batch is full.
//   the main thread runs the queued evaluations one after another, and sends
//   the reports itself when they are due as it finishes one (no hand-over
//   on the way back to the client).
//
//
// States: Serving -(kExit, or the client's end of the socket)-> Leaving
// (queued work is skipped, a running function is asked to stop) -> Ended
// (the main thread has returned and the reports are out).
//
// Threads: run() on the worker's main thread, which starts and joins the
// I/O thread. `mutex_` guards what the two threads share; `mpiMutex_` the
// MPI side (taken before `mutex_` when both are).

#include "Batch.hpp"
#include "Codec.hpp"
#include "ControlChannel.hpp"

#include <foundation/core/sync/Mutex.hpp>

#include <boost/mpi/communicator.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <optional>

namespace mpipool {

class WorkerLoop {
public:
    static constexpr std::chrono::microseconds kReportDelay{500};
    static constexpr std::size_t kReportBatchItems = 32;
    static constexpr std::size_t kReportBatchBytes = std::size_t{256} << 10;

    WorkerLoop(const boost::mpi::communicator& comm, ControlSocket& control);

    // Serves until the client ends the cluster (true) or is gone (false).
    // Main thread.
    bool run() QZ_EXCLUDES(mutex_);

private:
    using Clock = std::chrono::steady_clock;

    void ioLoop() noexcept QZ_EXCLUDES(mutex_);
    // Handles the frames read; false once the client is gone. I/O thread.
    bool handleFrames(std::vector<FrameMessage>& frames) QZ_EXCLUDES(mutex_);
    // Receives the announced MPI messages that have arrived. I/O thread.
    void receiveAnnounced() QZ_EXCLUDES(mutex_, mpiMutex_);
    void queueTasks(const protocol::Bytes& batch) QZ_EXCLUDES(mutex_);
    void stop(codec::TaskId id) QZ_EXCLUDES(mutex_);
    void leave(bool clientGone) QZ_EXCLUDES(mutex_);
    // Sends the reports if they are due (or `force`). Either thread.
    void sendReports(bool force) QZ_EXCLUDES(mutex_, mpiMutex_);
    // Sends the start frames held back for kReportDelay. I/O thread.
    void pushHeldBack() QZ_EXCLUDES(mutex_);
    // How long the I/O thread may sleep. Called with `mutex_` held.
    std::chrono::microseconds sleepLimit() const QZ_REQUIRES(mutex_);
    // After a report was added: whether the reports are due now.
    bool reported() QZ_REQUIRES(mutex_);

    const boost::mpi::communicator& comm_;
    ControlSocket& control_;
    Waker waker_;
    foundation::core::sync::Mutex mpiMutex_;
    protocol::Outbox outbox_ QZ_GUARDED_BY(mpiMutex_);
    std::size_t announced_ = 0; // messages the client announced, not yet received; I/O thread

    foundation::core::sync::Mutex mutex_;
    std::condition_variable work_; // tasks queued, or leaving
    std::deque<codec::TaskMessage> queue_ QZ_GUARDED_BY(mutex_);
    std::optional<codec::TaskId> running_ QZ_GUARDED_BY(mutex_);
    std::atomic<bool> stop_{false}; // the running evaluation's stop request
    bool leaving_ QZ_GUARDED_BY(mutex_) = false;
    bool clientGone_ QZ_GUARDED_BY(mutex_) = false;
    bool ended_ QZ_GUARDED_BY(mutex_) = false; // the main thread has returned
    batch::Outgoing reports_ QZ_GUARDED_BY(mutex_){protocol::kReports, protocol::kResult};
    Clock::time_point oldestReport_ QZ_GUARDED_BY(mutex_);
    bool reportsDue_ QZ_GUARDED_BY(mutex_) = false;
    // A start frame the kernel may hold back (see ControlSocket::write).
    bool startHeldBack_ QZ_GUARDED_BY(mutex_) = false;
    Clock::time_point heldBackSince_ QZ_GUARDED_BY(mutex_);
};

} // namespace mpipool
