#pragma once

// A worker's side of the cluster. The main thread receives evaluations from
// the client and runs each itself, reporting its start and its result; while
// a function runs, the stop watcher's thread polls for the client's stop
// request for it. The two threads take turns at MPI through one mutex: the
// main thread holds it except while it runs a function.
//
// States: Polling -(kTask)-> Running -(function returns)-> Polling;
// Polling -(kExit)-> Ended. A kStop that reaches the main thread names no
// running task and is dropped.
//
// Threads: run() on the worker's main thread; the watcher's own thread.

#include "Codec.hpp"
#include "PollPacer.hpp"

#include <foundation/core/sync/Mutex.hpp>

#include <boost/mpi/communicator.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <thread>

namespace mpipool {

// Watches for the stop request of the task that the main thread runs.
// States: Idle -(watch)-> Watching -(unwatch)-> Idle. Every kPollInterval,
// while Watching, it polls for kStop only (taking the MPI mutex for the poll)
// and sets the stop flag when a request names the watched task. It is never
// woken for a task: a short evaluation ends before the next poll and costs
// the watcher nothing, and a stop request waits at most one interval.
class StopWatcher {
public:
    static constexpr std::chrono::microseconds kPollInterval{1000};

    StopWatcher(const boost::mpi::communicator& comm, foundation::core::sync::Mutex& mpiMutex);
    ~StopWatcher();
    StopWatcher(const StopWatcher&) = delete;
    StopWatcher& operator=(const StopWatcher&) = delete;

    // Clears the stop flag and watches for requests naming `id`. Main thread.
    void watch(codec::TaskId id) QZ_EXCLUDES(mutex_);
    void unwatch() QZ_EXCLUDES(mutex_);
    const std::atomic<bool>& stopFlag() const noexcept { return stop_; }

private:
    void loop() noexcept QZ_EXCLUDES(mutex_);
    // One poll for a stop request. Watcher thread.
    void pollOnce() QZ_EXCLUDES(mutex_, mpiMutex_);

    const boost::mpi::communicator& comm_;
    foundation::core::sync::Mutex& mpiMutex_;
    foundation::core::sync::Mutex mutex_;
    std::condition_variable quitNews_;
    std::atomic<bool> watching_{false};
    codec::TaskId watched_ QZ_GUARDED_BY(mutex_) = 0;
    bool quit_ QZ_GUARDED_BY(mutex_) = false;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class WorkerLoop {
public:
    explicit WorkerLoop(const boost::mpi::communicator& comm);

    // Serves until the client ends the cluster.
    void run() QZ_EXCLUDES(mpiMutex_);

private:
    const boost::mpi::communicator& comm_;
    foundation::core::sync::Mutex mpiMutex_;
    std::condition_variable noNews_; // nothing local wakes the main thread: MPI is polled
    StopWatcher watcher_;
};

} // namespace mpipool
