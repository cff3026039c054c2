#pragma once

// A worker's side of the cluster: two threads that share two parts, each
// part taken by one thread at a time (leader and follower).
//
//   the reader owns the control socket and receives the MPI messages it
//   announces. It sleeps in poll() until the client writes a frame or the
//   runner needs it, and not while MPI has a message to move either way (a
//   large report leaves its sender only while MPI is called); it queues the
//   tasks that arrive, passes stop requests on at once, and sends the reports
//   that are due: when kReportDelay has passed since the oldest one (a long
//   evaluation never holds back the results before it) or a batch is full.
//   the runner runs the queued evaluations one after another, and sends the
//   reports itself when the queue runs dry or the batch is full. Before it
//   runs one, it tells the client that it starts: in the start record when
//   the client shares one (StartRecord.hpp; the client reads it for a run
//   that lasts), else in a Started frame at once.
//
// The reader that queues a task becomes the runner at once, and the other
// thread, on standby, takes over the reading: for a batch, once the run has
// lasted kHandOver (its alarm), so that steady work is read in batches; for
// a lone task, as soon as anything arrives, the control socket being watched
// in its sleep while the task runs (sporadic work sets no timer). A task
// that arrives at an idle worker runs without a hand-over, and a short one
// without waking the other thread. An idle worker has one thread asleep in
// poll() on the control socket and the other on its alarm.
//
// States: Serving -(Exit, or the client's end of the socket)-> Leaving
// (queued work is skipped, a running function is asked to stop) -> Ended
// (both threads are out and the reports are sent).
//
// Threads: run() on the worker's main thread, which is one of the two and
// starts and joins the other. Either takes a free part, and sleeps in
// standbySleep_ while it has none. `mutex_` guards what they share; `mpiMutex_`
// the MPI side (taken before `mutex_` when both are). What the reader alone
// touches is marked so.

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
    // How long frames may wait unread while the reader runs what it queued.
    static constexpr std::chrono::microseconds kHandOver{200};

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

    // Takes whichever part is free until leaving. Both threads.
    void serve() noexcept QZ_EXCLUDES(mutex_);
    // The runner's part: the queued tasks, one after another.
    void runQueued() QZ_EXCLUDES(mutex_, mpiMutex_);
    // One turn of the reader's part: a wait, then what arrived.
    void readOnce() noexcept QZ_EXCLUDES(mutex_, mpiMutex_);
    bool clientGone() QZ_EXCLUDES(mutex_);
    // Handles the frames read; false once the client is gone. The reader.
    bool handleFrames(std::vector<FrameMessage>& frames) QZ_EXCLUDES(mutex_);
    // Receives the announced MPI messages that have arrived. The reader.
    void receiveAnnounced() QZ_EXCLUDES(mutex_, mpiMutex_);
    // Decodes a kTasks batch or a lone kTask and queues its tasks.
    void queueTasks(const protocol::Message& message) QZ_EXCLUDES(mutex_);
    void stop(codec::TaskId id) QZ_EXCLUDES(mutex_);
    void leave(bool clientGone) QZ_EXCLUDES(mutex_);
    // Sends the reports if they are due (or `force`). Either thread.
    void sendReports(bool force) QZ_EXCLUDES(mutex_, mpiMutex_);
    // Sends the start frames held back for kReportDelay. The reader.
    void pushHeldBack() QZ_EXCLUDES(mutex_);
    // How long the reader may sleep. Called with `mutex_` held.
    std::chrono::microseconds sleepLimit() const QZ_REQUIRES(mutex_);
    // After a report was added: whether the reports are due now.
    bool reported() QZ_REQUIRES(mutex_);

    const boost::mpi::communicator& comm_;
    ControlSocket& control_;
    StartRecord* const starts_;
    Waker waker_;
    foundation::core::sync::Mutex mpiMutex_;
    protocol::Outbox outbox_ QZ_GUARDED_BY(mpiMutex_);
    std::size_t announced_ = 0; // announced by the client, not yet received; the reader

    foundation::core::sync::Mutex mutex_;
    // Rings the thread on standby: the runner has lasted kHandOver while no
    // one reads, or leaving.
    Alarm standby_;
    WatchedSleep standbySleep_; // on standby_, and on the socket during a lone run
    bool readerTaken_ QZ_GUARDED_BY(mutex_) = false;
    bool runnerTaken_ QZ_GUARDED_BY(mutex_) = false;
    std::deque<codec::TaskMessage> queue_ QZ_GUARDED_BY(mutex_);
    std::optional<codec::TaskId> running_ QZ_GUARDED_BY(mutex_);
    std::atomic<bool> stop_{false}; // the running evaluation's stop request
    bool leaving_ QZ_GUARDED_BY(mutex_) = false;
    bool clientGone_ QZ_GUARDED_BY(mutex_) = false;
    bool skipFinalize_ = false; // the reader's, until the threads are joined
    batch::Outgoing reports_ QZ_GUARDED_BY(mutex_){protocol::kReports, protocol::kResult};
    Clock::time_point oldestReport_ QZ_GUARDED_BY(mutex_);
    bool reportsDue_ QZ_GUARDED_BY(mutex_) = false;
    // A start frame the kernel may hold back (see ControlSocket::write).
    bool startHeldBack_ QZ_GUARDED_BY(mutex_) = false;
    Clock::time_point heldBackSince_ QZ_GUARDED_BY(mutex_);
};

} // namespace mpipool
