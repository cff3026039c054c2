#pragma once

// A worker's side of the cluster: two threads, each of which runs the queued
// evaluations when no other does, and else sleeps on the control socket.
//
//   Both sleep in epoll (SharedWait) on the control socket and the wake-up
//   descriptor, registered exclusively: what arrives wakes one sleeping
//   thread. That thread takes in what arrived (one thread at a time: the
//   read mutex): it queues the tasks that came, passes stop requests on,
//   and sends the reports that are due: when kReportDelay has passed since
//   the oldest one (a long evaluation never holds back the results before
//   it) or a batch is full. Then, if no thread runs evaluations, it runs
//   what it queued itself: a task that arrives at an idle worker runs on
//   the thread it woke, with no hand-over.
//   While one thread runs, the other sleeps alone on the socket, so what
//   arrives meanwhile (a stop request above all) is taken in at once. The
//   runner sends the reports itself when the queue runs dry or the batch is
//   full. Before it runs an evaluation, it tells the client that it starts:
//   in the start record when the client shares one (StartRecord.hpp, which
//   the client reads for a run that lasts), else in a Started frame at once.
//
// An idle worker has both threads asleep, and a frame wakes one of them.
//
// States: Serving -(Exit, or the client's end of the socket)-> Leaving
// (queued work is skipped, a running function is asked to stop) -> Ended
// (both threads are out and the reports are sent).
//
// Threads: run() on the worker's main thread, which is one of the two and
// starts and joins the other. `mutex_` guards what they share; `readMutex_`
// what arrives; `mpiMutex_` the MPI side. Taken in that order: `readMutex_`,
// `mpiMutex_`, `mutex_`.

#include "Batch.hpp"
#include "Codec.hpp"
#include "ControlChannel.hpp"
#include "StartRecord.hpp"

#include <foundation/core/sync/Mutex.hpp>

#include <boost/mpi/communicator.hpp>

#include <atomic>
#include <chrono>
#include <deque>
#include <optional>

namespace mpipool {

class WorkerLoop {
public:
    static constexpr std::chrono::microseconds kReportDelay{500};
    static constexpr std::size_t kReportBatchItems = 32;
    static constexpr std::size_t kReportBatchBytes = std::size_t{256} << 10;

    // `starts`: this worker's start record, or null.
    WorkerLoop(const boost::mpi::communicator& comm, ControlSocket& control, StartRecord* starts);

    // How serving ended.
    enum class Ending {
        Finalize,     // the client ended the cluster
        SkipFinalize, // the client ended a cluster that lost a process: MPI
                      // cannot finalize (it would wait for the lost one)
        ClientGone,   // the client is gone: MPI cannot finalize either
    };
    // Serves until the client ends the cluster or is gone. Main thread.
    Ending run() QZ_EXCLUDES(mutex_, mpiMutex_);

private:
    using Clock = std::chrono::steady_clock;

    // Runs the queued tasks when no other thread does, and else sleeps on
    // `waiting` and takes in what arrives, until leaving. Both threads.
    void serve(SharedWait& waiting) noexcept QZ_EXCLUDES(readMutex_, mpiMutex_, mutex_);
    // The runner's part: the queued tasks, one after another.
    void runQueued() QZ_EXCLUDES(mutex_, mpiMutex_);
    // A sleep on `waiting`, then what arrived. Either thread.
    void readOnce(SharedWait& waiting) noexcept QZ_EXCLUDES(readMutex_, mpiMutex_, mutex_);
    bool clientGone() QZ_EXCLUDES(mutex_);
    // Handles the frames read; false once the client is gone.
    bool handleFrames(std::vector<FrameMessage>& frames) QZ_REQUIRES(readMutex_)
        QZ_EXCLUDES(mutex_);
    // Receives the announced MPI messages that have arrived.
    void receiveAnnounced() QZ_REQUIRES(readMutex_) QZ_EXCLUDES(mutex_, mpiMutex_);
    // Decodes a kTasks batch or a lone kTask and queues its tasks.
    void queueTasks(const protocol::Message& message) QZ_EXCLUDES(mutex_);
    void stop(codec::TaskId id) QZ_EXCLUDES(mutex_);
    void leave(bool clientGone) QZ_EXCLUDES(mutex_);
    // Sends the reports if they are due (or `force`). Either thread.
    void sendReports(bool force) QZ_EXCLUDES(mutex_, mpiMutex_);
    // Sends the start frames held back for kReportDelay.
    void pushHeldBack() QZ_EXCLUDES(mutex_);
    // How long a thread may sleep. Called with `mutex_` held.
    std::chrono::microseconds sleepLimit() const QZ_REQUIRES(mutex_);
    // After a report was added: whether the reports are due now.
    bool reported() QZ_REQUIRES(mutex_);

    const boost::mpi::communicator& comm_;
    ControlSocket& control_;
    StartRecord* const starts_;
    Waker waker_;       // the runner's news for a sleeping thread: a timer to set
    Waker leaveSignal_; // rung once when leaving, never drained: every sleep ends

    foundation::core::sync::Mutex readMutex_;
    std::size_t announced_ QZ_GUARDED_BY(readMutex_) = 0; // not yet received
    bool skipFinalize_ QZ_GUARDED_BY(readMutex_) = false;

    foundation::core::sync::Mutex mpiMutex_;
    protocol::Outbox outbox_ QZ_GUARDED_BY(mpiMutex_);

    foundation::core::sync::Mutex mutex_;
    bool runnerTaken_ QZ_GUARDED_BY(mutex_) = false;
    std::deque<codec::TaskMessage> queue_ QZ_GUARDED_BY(mutex_);
    std::optional<codec::TaskId> running_ QZ_GUARDED_BY(mutex_);
    std::atomic<bool> stop_{false}; // the running evaluation's stop request
    bool leaving_ QZ_GUARDED_BY(mutex_) = false;
    bool clientGone_ QZ_GUARDED_BY(mutex_) = false;
    batch::Outgoing reports_ QZ_GUARDED_BY(mutex_){protocol::kReports, protocol::kResult};
    Clock::time_point oldestReport_ QZ_GUARDED_BY(mutex_);
    bool reportsDue_ QZ_GUARDED_BY(mutex_) = false;
    // A start frame the kernel may hold back (see ControlSocket::write).
    bool startHeldBack_ QZ_GUARDED_BY(mutex_) = false;
    Clock::time_point heldBackSince_ QZ_GUARDED_BY(mutex_);
};

} // namespace mpipool
