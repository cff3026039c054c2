#pragma once

// The client's side of an open pool: the link thread, which calls MPI for
// rank 0 while the pool is open (as does a submitting thread that finds a
// worker idle, under the same MPI mutex: sendNow). It sends the work list's
// tasks to the workers in batches, passes stop requests on, turns the
// workers' reports into task notifications (Running, Finished) and results,
// and fails the work of a worker that is lost. It sleeps in poll() on the
// workers' control sockets and the work list's waker: nothing is polled
// while nothing happens. While nothing is in flight it leaves the sockets
// out (but for a look every kIdleLook, for a worker lost meanwhile): a thread
// that sends to an idle pool yields, then takes in the reports already there
// itself, and wakes the link thread only for work still out (sendNow). The
// report of a short task then wakes no thread at all. A thread that waits
// for results on the interpreter thread that opened the pool sleeps on the
// sockets too (MpiPool) and takes in a report itself when it comes first
// (serveWaiter): the report that ends a wait wakes the waiter, not the link
// thread that would then wake it. For a pool opened elsewhere, when work
// goes to a pool that has been quiet, the link thread polls for up to kWatch
// instead of sleeping (a watch): the report of a short task then finds it
// awake.
//
// Whoever leaves the MPI mutex with work in flight that the link thread's
// sleep does not watch (without the sockets, or with no time set to look at
// the start records), or with MPI traffic that no sleep sees (an announced
// report not received yet, a send MPI has not finished), wakes it (news): no
// report waits unread, no run that lasts goes unnoticed, and MPI is called
// until its traffic is done.
//
// States: Open -> Closing (close(): the work list refuses work, waiting
// tasks are cancelled, workers are asked to stop what they have) -> Finished
// (every task in flight has its report, or its worker is lost; the thread
// has ended).
//
// Ownership: shared by the pool, the cluster (weakly) and the link thread,
// which keeps the link alive until it ends. The thread is detached; waiting
// for it is waiting for Finished. The control sockets and the lost-rank
// flags are the cluster's, which outlives its pools.
//
// Threads: close(), waitUntilFinished() and serveWaiter() from any thread;
// run() is the link thread's. The MPI mutex makes one thread at a time read
// the control sockets and call MPI; the delivery mutex, one at a time run
// the notifications of what was read.

#include "Batch.hpp"
#include "Codec.hpp"
#include "ControlChannel.hpp"
#include "StartRecord.hpp"
#include "WorkList.hpp"

#include <foundation/core/sync/Mutex.hpp>
#include <iqm/Iqm.hpp>

#include <boost/mpi/communicator.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <thread>

namespace mpipool {

// Per worker rank (index rank - 1): whether the process is lost. Shared by a
// cluster and its pools; any thread.
using LostRanks = std::vector<std::atomic<bool>>;

class ClientLink : public std::enable_shared_from_this<ClientLink> {
public:
    // At most this many tasks in flight at one worker, while its tasks run
    // shorter than kShortRun and encode to less than kSmallTask bytes.
    static constexpr std::size_t kMaxInFlight = 128;
    static constexpr std::uint64_t kShortRunMicros = 1000;
    static constexpr std::size_t kSmallTask = std::size_t{64} << 10;
    // How long the link thread watches for the report of work sent to a pool
    // that had nothing in flight, polling instead of sleeping: a short task's
    // result is then taken in without waking the thread (sporadic work).
    static constexpr std::chrono::microseconds kWatch{300};
    // Only after this long without a report: steady work needs no watch.
    static constexpr std::chrono::milliseconds kQuietBeforeWatch{1};
    // How often the link thread of an idle pool looks at the sockets.
    static constexpr std::chrono::seconds kIdleLook{1};
    // How long the link thread sleeps before it looks at the start records
    // while tasks in flight are not known to run: a worker that records its
    // starts there sends no Started frame.
    static constexpr std::chrono::microseconds kStartLook{500};

    // Starts the link thread for workers `ranks`, reached through `control`
    // (index rank - 1), with their start records if shared (may be null).
    static std::shared_ptr<ClientLink> open(boost::mpi::communicator comm, std::vector<int> ranks,
                                            std::vector<ControlSocket*> control,
                                            std::shared_ptr<LostRanks> lost,
                                            const StartRecord* starts);

    ClientLink(const ClientLink&) = delete;
    ClientLink& operator=(const ClientLink&) = delete;

    const std::shared_ptr<WorkList>& getWorkList() const noexcept { return work_; }

    // Sends the work list's tasks to the idle workers on the calling thread
    // (the submitting one: no hand-over to the link thread), unless the link
    // thread is at MPI, which then sends them. With every worker busy it
    // does nothing: the link thread sends on the next report. After a send
    // to an idle pool, it yields and takes in the reports already there,
    // running their notifications on this thread. Any thread.
    void sendNow() QZ_EXCLUDES(mpiMutex_, deliveryMutex_);

    // Takes in what the workers said and runs its notifications on the
    // calling thread: one that waits for results, woken by the control
    // socket of `worker` (see MpiPool). Leaves it to the link thread when
    // that is at it; Ended once the socket has ended or the link has. Any
    // thread but the link thread.
    iqm::Iqm::Served serveWaiter(std::size_t worker) noexcept
        QZ_EXCLUDES(mpiMutex_, deliveryMutex_);
    // The control socket of `worker`, for a waiter to poll.
    int controlFd(std::size_t worker) const { return socketFds_.at(worker); }
    std::size_t numWorkers() const noexcept { return control_.size(); }
    // Whether a waiting thread serves the workers' reports (MpiPool sets it
    // once, before any work): the link thread then keeps no watch.
    void setWaiterServes() noexcept { waiterServes_ = true; }

    // Refuses further work, cancels the waiting work and asks the workers to
    // stop what they run. Any thread.
    void close() noexcept;
    bool isFinished() const;
    // Waits until Finished; returns at once on the link thread itself.
    void waitUntilFinished() const;
    bool isLinkThread() const noexcept;

private:
    // A worker's report of a task.
    struct Event {
        enum Kind { Started, Finished, Skipped };
        std::shared_ptr<ClusterTask> task;
        Kind kind;
        std::optional<codec::ResultMessage> result;
        std::size_t worker;
    };

    ClientLink(boost::mpi::communicator comm, std::vector<int> ranks,
               std::vector<ControlSocket*> control, std::shared_ptr<LostRanks> lost,
               const StartRecord* starts);
    void run() noexcept;
    // sendNow's part with the MPI mutex: true when a task could not be sent
    // (its failure is stashed for the link thread).
    // Whether sends went to a quiet pool (nothing in flight, no report for
    // kQuietBeforeWatch), and whether the link thread watches for them.
    enum class Quiet { No, Yes, Watched };
    bool sendTaken(Quiet& quiet) QZ_REQUIRES(mpiMutex_);
    // Watches for kWatch when `sends` go to a quiet pool and no waiter
    // serves the reports.
    Quiet watchFirst(bool poolWasIdle, const std::vector<WorkList::Send>& sends)
        QZ_REQUIRES(mpiMutex_);
    // Whether the link thread polls instead of sleeping.
    bool watching() const QZ_REQUIRES(mpiMutex_);
    // Whether the link thread must be woken for what its sleep does not
    // watch: MPI traffic under way, or work in flight while it sleeps without
    // the sockets, or with no time set for a look at the start records while
    // a task in flight is not known to run.
    bool unheard() const QZ_REQUIRES(mpiMutex_) {
        return mpiBusy() ||
               (!work_->allIdle() && (!listening_ || (starts_ != nullptr && !lookingAtStarts_ &&
                                                      work_->anyUnstarted())));
    }
    // Whether MPI has traffic that only calls to it move on: a report
    // announced but not received yet, or a send not finished.
    bool mpiBusy() const QZ_REQUIRES(mpiMutex_) {
        return !outbox_.idle() ||
               std::ranges::any_of(announced_, [](std::size_t n) { return n > 0; });
    }
    // Takes in what the workers on the `ready` sockets (index worker + 1)
    // said and runs its notifications on the calling thread, unless another
    // thread is at it. Elsewhere then; else Ended if a socket has ended.
    // Wakes the link thread for what it must do after. Not the link thread.
    iqm::Iqm::Served serveHere(const std::vector<bool>& ready) noexcept
        QZ_EXCLUDES(mpiMutex_, deliveryMutex_);
    // Whether this thread runs notifications of the link's (a wait inside one
    // leaves the sockets to others).
    static bool& delivering() noexcept;
    // What the workers said on the ready sockets and through MPI, as events.
    // The link thread, or a waiter.
    void takeIn(const std::vector<bool>& ready, std::vector<Event>& events) QZ_REQUIRES(mpiMutex_);
    // Reads the control frames of the ready sockets.
    void readFrames(const std::vector<bool>& ready, std::vector<Event>& events)
        QZ_REQUIRES(mpiMutex_);
    // Receives the announced reports that have arrived.
    void receiveReports(std::vector<Event>& events) QZ_REQUIRES(mpiMutex_);
    void readReports(std::size_t worker, std::string_view bytes, std::vector<Event>& events)
        QZ_REQUIRES(mpiMutex_);
    // Takes the task of `result` out of flight at `worker` and adds its
    // Finished event, after a Started one if none came before (the start
    // records tell only of runs that last); nothing if it is not in flight
    // there.
    void finished(std::size_t worker, codec::ResultMessage result, std::uint64_t runMicros,
                  std::vector<Event>& events) QZ_REQUIRES(mpiMutex_);
    // Adds the Started event of the task each worker started last, from the
    // start records, unless added before. The link thread.
    void lookAtStarts(std::vector<Event>& events) QZ_REQUIRES(mpiMutex_);
    // Encodes and sends a worker's tasks; one that cannot be encoded fails
    // through `events`.
    void send(const WorkList::Send& send, std::vector<Event>& events) QZ_REQUIRES(mpiMutex_);
    // Runs the notifications of `event`; on the link thread, its Running
    // goes on the lane of the worker's rank, as it does on a waiter, which
    // then gets its own lane back.
    void deliver(Event& event);
    // Finishes `task` with `error`, as if it ran. Link thread.
    static void fail(ClusterTask& task, std::exception_ptr error);
    // Fails the work of `worker`, which is gone. Link thread.
    void lose(std::size_t worker);
    std::vector<std::size_t> windows() const QZ_REQUIRES(mpiMutex_);

    boost::mpi::communicator comm_;
    std::vector<int> ranks_;              // worker index -> rank
    std::vector<ControlSocket*> control_; // worker index -> its control socket
    std::vector<int> socketFds_;          // worker index -> that socket's descriptor
    std::shared_ptr<LostRanks> lost_;
    const StartRecord* starts_; // the cluster's; null when not shared
    std::shared_ptr<WorkList> work_;

    // The MPI side: held by the link thread while it is at MPI, and by a
    // submitting thread that sends (sendNow).
    foundation::core::sync::Mutex mpiMutex_;
    protocol::Outbox outbox_ QZ_GUARDED_BY(mpiMutex_);
    std::vector<Event> stashed_ QZ_GUARDED_BY(mpiMutex_); // for the link thread to deliver
    // Per worker.
    std::vector<std::size_t> announced_ QZ_GUARDED_BY(mpiMutex_); // reports on their way
    std::vector<bool> gone_ QZ_GUARDED_BY(mpiMutex_);             // its control stream has ended
    std::vector<std::uint64_t> lastRun_ QZ_GUARDED_BY(mpiMutex_); // its last task's, in µs
    std::vector<std::size_t> lastSize_ QZ_GUARDED_BY(mpiMutex_);  // its last task, encoded
    std::vector<std::optional<codec::TaskId>> lastStart_ QZ_GUARDED_BY(mpiMutex_); // as recorded
    std::chrono::steady_clock::time_point watchUntil_ QZ_GUARDED_BY(mpiMutex_);
    std::chrono::steady_clock::time_point lastReport_ QZ_GUARDED_BY(mpiMutex_);
    bool ended_ QZ_GUARDED_BY(mpiMutex_) = false; // the link thread has left
    // Whether the link thread's sleep takes in the control sockets: set at
    // the end of each of its turns, false while nothing is in flight.
    bool listening_ QZ_GUARDED_BY(mpiMutex_) = true;
    // Whether that sleep ends after kStartLook for a look at the start records.
    bool lookingAtStarts_ QZ_GUARDED_BY(mpiMutex_) = false;
    std::atomic<bool> waiterServes_{false};

    // Held by whoever runs the notifications of what the workers said (the
    // link thread or a waiter), taken before the MPI mutex goes: a task's
    // Running and Finished run in the order they were read. Taken after the
    // MPI mutex.
    foundation::core::sync::Mutex deliveryMutex_;

    std::shared_future<void> finished_;
    std::thread::id threadId_;
};

} // namespace mpipool
